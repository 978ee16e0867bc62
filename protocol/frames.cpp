// Frame layout: hex characters, checksum, the handshake, read and write frames.
#include "xbc_protocol.h"

#include <climits>

unsigned char hexChar(int nibble)
{
    nibble &= 0x0F;
    return (unsigned char)(nibble < 10 ? nibble + 0x30 : nibble + 0x37);
}

void putHexPair(unsigned char *at, unsigned char byte)
{
    at[0] = hexChar(byte >> 4);
    at[1] = hexChar(byte & 0x0F);
}

void putHex16(unsigned char *at, quint16 value)
{
    putHexPair(at, (unsigned char)(value & 0xFF));
    putHexPair(at + 2, (unsigned char)(value >> 8));
}

static int nibbleOf(unsigned char c)
{
    if (c <= 0x2F || c == 0x40)
        return 0;
    if (c <= 0x3F)
        return c - 0x30;
    return (c - 0x37) & 0x0F;
}

unsigned char asc2hex(const QByteArray &bytes, int pos)
{
    const int high = pos >= 0 && pos < bytes.size() ? nibbleOf((unsigned char)bytes.at(pos)) : 0;
    const int low =
        pos + 1 >= 0 && pos + 1 < bytes.size() ? nibbleOf((unsigned char)bytes.at(pos + 1)) : 0;
    return (unsigned char)((high * 16 + low) & 0xFF);
}

quint16 computate_check(const unsigned char *bytes, quint16 n)
{
    quint16 sum = 0;
    for (quint16 i = 0; i < n; ++i)
        sum = quint16(sum + bytes[i]);
    return sum;
}

void sealFrame(unsigned char *frame, int frameLen)
{
    const quint16 sum = computate_check(frame + 1, quint16(frameLen - 4));
    putHexPair(frame + frameLen - 3, (unsigned char)(sum & 0xFF));
    frame[frameLen - 1] = ETX;
}

// STX, command, area letter, byte address of the first word, "00".
static void writeFrameHead(unsigned char *frame, char command, char letter, int wordNumber)
{
    frame[0] = STX;
    frame[FRAME_COMMAND] = (unsigned char)command;
    frame[FRAME_AREA] = (unsigned char)letter;
    putHex16(frame + FRAME_ADDRESS, quint16(quint32(wordNumber) * 2u));
    frame[FRAME_RESERVED] = '0';
    frame[FRAME_RESERVED + 1] = '0';
}

// Bits go on the wire as the words that hold them.
static int wireWordNumber(const VARIABLE &var)
{
    return registerOf(var.regName).wireBits() ? var.address / WIRE_WORD_BITS : var.address;
}

static int wordWriteLength(int words)
{
    return FRAME_DATA + 4 * words + FRAME_TRAILER;
}

void handShakeFrame()
{
    FRAME_PRO frame;
    frame.var.regName = QLatin1String("");
    driver.sendList.append(frame);
}

// One read frame for at most MAX_WORDS_PER_FRAME words.
static void queueReadFrame(const VARIABLE &var)
{
    FRAME_PRO frame;
    writeFrameHead(frame.frame, 'r', registerOf(var.regName).letter, wireWordNumber(var));
    putHexPair(frame.frame + FRAME_COUNT, (unsigned char)((var.count * 2) & 0xFF));
    sealFrame(frame.frame, READ_FRAME_LEN);
    frame.frameLen = READ_FRAME_LEN;
    frame.replyLen = var.count * 4 + REPLY_OVERHEAD;
    frame.dataPos = REPLY_DATA;
    frame.wordCount = var.count;
    frame.var = var;
    driver.sendList.append(frame);
}

// Units a piece of `words` words advances the address by in the request's own units.
static int unitsPerWord(const VARIABLE &var)
{
    return registerOf(var.regName).bitInWord ? WIRE_WORD_BITS : 1;
}

int getReadFrame(QList<VARIABLE> vars)
{
    if (vars.isEmpty())
        return 0;
    VARIABLE var = vars.first();
    if (registerOf(var.regName).letter == 0 || var.count < 1)
        return 0;
    // A block longer than one frame can describe is read as several frames,
    // each decoded into its own records.
    const int total = qMin(var.count, MAX_WORDS_PER_READ);
    const int step = unitsPerWord(var);
    const int start = var.address;
    for (int done = 0; done < total; done += MAX_WORDS_PER_FRAME) {
        // Wrapping like the records it fills: a block near INT_MAX stays defined.
        var.address = int(quint32(start) + quint32(done) * quint32(step));
        var.count = qMin(MAX_WORDS_PER_FRAME, total - done);
        queueReadFrame(var);
    }
    return 1;
}

static void queueWriteRecord(FRAME_PRO &frame, const VARIABLE &request, int frameLen)
{
    sealFrame(frame.frame, frameLen);
    frame.frameLen = frameLen;
    frame.replyLen = WRITE_REPLY_LEN;
    frame.dataPos = 0;
    frame.wordCount = 0;
    frame.var = request;
    driver.sendList.append(frame);
}

static void queueWordWrite(const VARIABLE &request)
{
    FRAME_PRO frame;
    const int n = request.count;
    writeFrameHead(frame.frame, 'w', registerOf(request.regName).letter, request.address);
    putHexPair(frame.frame + FRAME_COUNT, (unsigned char)((n * 2) & 0xFF));
    for (int i = 0; i < 2 * n; ++i)
        putHexPair(frame.frame + FRAME_DATA + 2 * i, request.data[i]);
    queueWriteRecord(frame, request, wordWriteLength(n));
}

// Word writes longer than one frame are cut into frames of at most 127 words;
// each frame carries its own piece so that each reply settles its own words.
static int queueWordWrites(const VARIABLE &request)
{
    int frames = 0;
    for (int done = 0; done < request.count; done += MAX_WORDS_PER_FRAME) {
        VARIABLE piece = request;
        piece.address = request.address + done;
        piece.count = qMin(MAX_WORDS_PER_FRAME, request.count - done);
        memmove(piece.data, request.data + 2 * done, size_t(2 * piece.count));
        queueWordWrite(piece);
        ++frames;
    }
    return frames;
}

static void queueSingleBitWrite(const VARIABLE &request)
{
    FRAME_PRO frame;
    const bool set = request.data[0] != 0;
    writeFrameHead(frame.frame, set ? 'o' : 'n', registerOf(request.regName).letter,
                   request.address / WIRE_WORD_BITS);
    const quint16 bit = quint16(1u << (request.address % WIRE_WORD_BITS));
    putHex16(frame.frame + FRAME_COUNT, set ? bit : quint16(~bit));
    queueWriteRecord(frame, request, BIT_FRAME_LEN);
}

// Contacts have no word form with an area letter: several of them are written
// one frame per contact, in address order, each frame carrying its own bit.
static int queueContactWrites(const VARIABLE &request)
{
    for (int i = 0; i < request.count; ++i) {
        VARIABLE bit = request;
        bit.address = request.address + i;
        bit.count = 1;
        memset(bit.data, 0, sizeof bit.data);
        bit.data[0] = request.data[i];
        queueSingleBitWrite(bit);
    }
    return request.count;
}

// Several bits of a word register: read the words, then write them back with
// the bits merged in (the data are filled in when the read reply arrives).
static int queueReadModifyWrite(const VARIABLE &request)
{
    VARIABLE words = request;
    const UnitRun run = unitRunOfBits(request.address, request.count, WIRE_WORD_BITS);
    words.regName = registerOf(request.regName).readName;
    words.address = run.address;
    words.count = run.count;
    const char letter = registerOf(words.regName).letter;
    if (letter == 0 || words.count > MAX_WORDS_PER_FRAME)
        return 0;
    queueReadFrame(words);
    driver.sendList.last().var = request;

    FRAME_PRO write;
    writeFrameHead(write.frame, 'w', letter, words.address);
    putHexPair(write.frame + FRAME_COUNT, (unsigned char)((words.count * 2) & 0xFF));
    memset(write.frame + FRAME_DATA, '0', size_t(4 * words.count));
    queueWriteRecord(write, request, wordWriteLength(words.count));
    return 2;
}

bool completeReadModifyWrite(FRAME_PRO &write, const QByteArray &reply, int words, int start,
                             const VARIABLE &request)
{
    if (words < 1 || request.address < 0 || write.wordCount != 0 ||
        wordWriteLength(words) != write.frameLen)
        return false;
    QVector<quint16> merged(words);
    for (int j = 0; j < words; ++j)
        merged[j] =
            quint16(uchar2int16(asc2hex(reply, start + 4 * j), asc2hex(reply, start + 4 * j + 2)));
    for (int i = 0; i < request.count && i < DATA_BYTES; ++i) {
        const int b = request.address % WIRE_WORD_BITS + i;
        if (b / WIRE_WORD_BITS >= words)
            break;
        const quint16 mask = quint16(1u << (b % WIRE_WORD_BITS));
        merged[b / WIRE_WORD_BITS] = request.data[i] != 0
                                         ? quint16(merged[b / WIRE_WORD_BITS] | mask)
                                         : quint16(merged[b / WIRE_WORD_BITS] & ~mask);
    }
    for (int j = 0; j < words; ++j)
        putHex16(write.frame + FRAME_DATA + 4 * j, merged[j]);
    sealFrame(write.frame, write.frameLen);
    return true;
}

int getWriteFrame(VARIABLE &request)
{
    const Register reg = registerOf(request.regName);
    if (reg.letter == 0 || request.count < 1)
        return 0;
    // Addresses below 0 or past INT_MAX have no bit or word number on the wire.
    if (request.address < 0 || request.address > INT_MAX - request.count)
        return 0;
    if (!reg.wireBits())
        return queueWordWrites(request);
    if (request.count > DATA_BYTES)
        return 0;
    if (request.count == 1) {
        queueSingleBitWrite(request);
        return 1;
    }
    if (!reg.bitInWord)
        return queueContactWrites(request);
    return queueReadModifyWrite(request);
}
