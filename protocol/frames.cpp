// Frame layout: hex characters, checksum, the handshake, read and write frames.
#include "xbc_protocol.h"

#include <array>
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

static int wordWriteLength(int words)
{
    return FRAME_DATA + 4 * words + FRAME_TRAILER;
}

FRAME_PRO handShakeFrame()
{
    FRAME_PRO frame;
    frame.var.regName = QLatin1String("");
    return frame;
}

// One read frame for `words` words (at most MAX_WORDS_PER_FRAME) from word
// `wordNumber`, on behalf of `var`.
static void appendReadFrame(QList<FRAME_PRO> &out, char letter, int wordNumber, int words,
                            const VARIABLE &var)
{
    FRAME_PRO frame;
    writeFrameHead(frame.frame, 'r', letter, wordNumber);
    putHexPair(frame.frame + FRAME_COUNT, (unsigned char)((words * 2) & 0xFF));
    sealFrame(frame.frame, READ_FRAME_LEN);
    frame.frameLen = READ_FRAME_LEN;
    frame.replyLen = words * 4 + REPLY_OVERHEAD;
    frame.dataPos = REPLY_DATA;
    frame.wordCount = words;
    frame.var = var;
    out.append(frame);
}

int getReadFrame(const Register &reg, const VARIABLE &request, QList<FRAME_PRO> &out)
{
    if (reg.letter == 0 || request.count < 1)
        return 0;
    // A block longer than one frame can describe is read as several frames,
    // each decoded into its own records.
    VARIABLE var = request;
    const int total = qMin(request.count, MAX_WORDS_PER_READ);
    // Units a frame of words advances the address by, in the request's own units.
    const int step = reg.bitInWord ? WIRE_WORD_BITS : 1;
    for (int done = 0; done < total; done += MAX_WORDS_PER_FRAME) {
        // Wrapping like the records it fills: a block near INT_MAX stays defined.
        var.address = int(quint32(request.address) + quint32(done) * quint32(step));
        var.count = qMin(MAX_WORDS_PER_FRAME, total - done);
        // Bits go on the wire as the words that hold them.
        const int word = reg.wireBits() ? var.address / WIRE_WORD_BITS : var.address;
        appendReadFrame(out, reg.letter, word, var.count, var);
    }
    return 1;
}

static void appendWriteRecord(QList<FRAME_PRO> &out, FRAME_PRO &frame, const VARIABLE &request,
                              int frameLen)
{
    sealFrame(frame.frame, frameLen);
    frame.frameLen = frameLen;
    frame.replyLen = WRITE_REPLY_LEN;
    frame.dataPos = 0;
    frame.wordCount = 0;
    frame.var = request;
    out.append(frame);
}

static void appendWordWrite(QList<FRAME_PRO> &out, char letter, const VARIABLE &request)
{
    FRAME_PRO frame;
    const int n = request.count;
    writeFrameHead(frame.frame, 'w', letter, request.address);
    putHexPair(frame.frame + FRAME_COUNT, (unsigned char)((n * 2) & 0xFF));
    for (int i = 0; i < 2 * n; ++i)
        putHexPair(frame.frame + FRAME_DATA + 2 * i, request.data[i]);
    appendWriteRecord(out, frame, request, wordWriteLength(n));
}

// Word writes longer than one frame are cut into frames of at most 127 words;
// each frame carries its own piece so that each reply settles its own words.
static int appendWordWrites(QList<FRAME_PRO> &out, char letter, const VARIABLE &request)
{
    int frames = 0;
    for (int done = 0; done < request.count; done += MAX_WORDS_PER_FRAME) {
        VARIABLE piece = request;
        piece.address = request.address + done;
        piece.count = qMin(MAX_WORDS_PER_FRAME, request.count - done);
        memmove(piece.data, request.data + 2 * done, size_t(2 * piece.count));
        appendWordWrite(out, letter, piece);
        ++frames;
    }
    return frames;
}

static void appendSingleBitWrite(QList<FRAME_PRO> &out, char letter, const VARIABLE &request)
{
    FRAME_PRO frame;
    const bool set = request.data[0] != 0;
    writeFrameHead(frame.frame, set ? 'o' : 'n', letter, request.address / WIRE_WORD_BITS);
    const quint16 bit = quint16(1u << (request.address % WIRE_WORD_BITS));
    putHex16(frame.frame + FRAME_COUNT, set ? bit : quint16(~bit));
    appendWriteRecord(out, frame, request, BIT_FRAME_LEN);
}

// Contacts have no word form with an area letter: several of them are written
// one frame per contact, in address order, each frame carrying its own bit.
static int appendContactWrites(QList<FRAME_PRO> &out, char letter, const VARIABLE &request)
{
    for (int i = 0; i < request.count; ++i) {
        VARIABLE bit = request;
        bit.address = request.address + i;
        bit.count = 1;
        memset(bit.data, 0, sizeof bit.data);
        bit.data[0] = request.data[i];
        appendSingleBitWrite(out, letter, bit);
    }
    return request.count;
}

// Several bits of a word register: read the words, then write them back with
// the bits merged in (the data are filled in when the read reply arrives).
static int appendReadModifyWrite(QList<FRAME_PRO> &out, const Register &reg,
                                 const VARIABLE &request)
{
    const UnitRun words = unitRunOfBits(request.address, request.count, WIRE_WORD_BITS);
    const char letter = reg.readLetter;
    if (letter == 0 || words.count > MAX_WORDS_PER_FRAME)
        return 0;
    appendReadFrame(out, letter, words.address, words.count, request);

    FRAME_PRO write;
    writeFrameHead(write.frame, 'w', letter, words.address);
    putHexPair(write.frame + FRAME_COUNT, (unsigned char)((words.count * 2) & 0xFF));
    memset(write.frame + FRAME_DATA, '0', size_t(4 * words.count));
    appendWriteRecord(out, write, request, wordWriteLength(words.count));
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
        merged[j] = replyWord(reply, start, j);
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

int getWriteFrame(const Register &reg, const VARIABLE &request, QList<FRAME_PRO> &out)
{
    if (reg.letter == 0 || request.count < 1)
        return 0;
    // Addresses below 0 or past INT_MAX have no bit or word number on the wire.
    if (request.address < 0 || request.address > INT_MAX - request.count)
        return 0;
    if (!reg.wireBits())
        return appendWordWrites(out, reg.letter, request);
    if (request.count > DATA_BYTES)
        return 0;
    if (request.count == 1) {
        appendSingleBitWrite(out, reg.letter, request);
        return 1;
    }
    if (!reg.bitInWord)
        return appendContactWrites(out, reg.letter, request);
    return appendReadModifyWrite(out, reg, request);
}

quint16 replyWord(const QByteArray &reply, int start, int k)
{
    const int pos = start + 4 * k;
    if (pos < 0 || pos > reply.size() - 4) // missing digits read as 0
        return quint16(uchar2int16(asc2hex(reply, pos), asc2hex(reply, pos + 2)));
    // A whole word, the usual case, by table and without a bounds check per
    // digit: a full-frame poll decodes 127 of them per reply.
    static const std::array<quint8, 256> nibbles = [] {
        std::array<quint8, 256> t{};
        for (int c = 0; c < 256; ++c)
            t[size_t(c)] = quint8(nibbleOf((unsigned char)c));
        return t;
    }();
    const auto *d = reinterpret_cast<const unsigned char *>(reply.constData()) + pos;
    return quint16(nibbles[d[2]] << 12 | nibbles[d[3]] << 8 | nibbles[d[0]] << 4 | nibbles[d[1]]);
}

unsigned char replyBit(const QByteArray &reply, int start, int bit)
{
    return (asc2hex(reply, start + 2 * (bit / 8)) >> (bit % 8)) & 1;
}
