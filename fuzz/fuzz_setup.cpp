// Arbitrary property strings and address key lists through initialisation and
// merging, followed by a few send calls on the plan they produce.
#include "fuzz_input.h"

#include <string>

constexpr int MAX_PROPERTY_BYTES = 40;
constexpr int ROUNDS = 2;
constexpr int EXCHANGES_PER_ROUND = 2;
constexpr int MAX_REPLY_LEN = 4096;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in{data, size};
    const QByteArray properties = in.bytes(in.byte() % MAX_PROPERTY_BYTES);
    fuzzResetDriver(std::string(properties.constData(), size_t(properties.size())).c_str());
    for (int round = 0; round < ROUNDS; ++round) {
        QList<KEY_ADDRESS> keys;
        for (int n = in.byte() % SETUP_MAX_KEYS; n > 0; --n) {
            KEY_ADDRESS key;
            key.stationNo = in.byte() < 250 ? in.byte() % 4 : in.int32();
            key.regName = in.regName();
            key.address = in.byte() < 200 ? in.int16() : in.int32();
            key.count = in.count();
            keys.append(key);
        }
        intf_addrMerge(&keys);
        // Every frame answered with a well-formed all-zero reply of the length
        // it expects, so that the plan moves on.
        for (int exchange = 0; exchange < EXCHANGES_PER_ROUND; ++exchange) {
            FRAME_PRO frame;
            if (!intf_getSendFrame(&frame))
                break;
            const bool usable = frame.replyLen >= WRITE_REPLY_LEN && frame.replyLen < MAX_REPLY_LEN;
            QByteArray reply = framedReply(
                QByteArray((usable ? frame.replyLen : WRITE_REPLY_LEN) - WRITE_REPLY_LEN + 1, '0'));
            QString errorText;
            intf_dealRcvFrame(reply, errorText);
        }
    }
    fuzzReleaseDriver();
    return 0;
}
