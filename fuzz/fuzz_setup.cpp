// Arbitrary property strings and address key lists through initialisation and
// merging, followed by a few send calls on the plan they produce.
#include "fuzz_input.h"

#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in{data, size};
    const QByteArray properties = in.bytes(in.byte() % 40);
    fuzzResetDriver(std::string(properties.constData(), size_t(properties.size())).c_str());
    for (int round = 0; round < 2; ++round) {
        QList<KEY_ADDRESS> keys;
        for (int n = in.byte() % 24; n > 0; --n) {
            KEY_ADDRESS key;
            key.stationNo = in.byte() < 250 ? in.byte() % 4 : in.int32();
            key.regName = in.regName();
            key.address = in.byte() < 200 ? in.int16() : in.int32();
            key.count = in.count();
            keys.append(key);
        }
        intf_addrMerge(&keys);
        for (int exchange = 0; exchange < 8; ++exchange) {
            FRAME_PRO frame;
            if (!intf_getSendFrame(&frame))
                break;
            QByteArray reply(frame.replyLen > 0 && frame.replyLen < 4096 ? frame.replyLen : 5, '0');
            reply[0] = char(ACK);
            reply[reply.size() - 1] = char(EOT);
            QString errorText;
            intf_dealRcvFrame(reply, errorText);
        }
    }
    return 0;
}
