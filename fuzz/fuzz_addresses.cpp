// Arbitrary register names and address texts through the address functions.
#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in{data, size};
    const QString regName = in.regName();
    const QString format = QString::fromLatin1(in.bytes(in.byte() % 10));
    const QString text = QString::fromLatin1(in.bytes(in.byte() % 24));
    int value = in.int32();
    a2i(text, value, format, regName);
    addr_str2int(text, regName);
    addr_int2str(in.int32(), regName);
    getRegAddressWeight(in.int32(), regName, in.int32());
    formatPlainAddress(format, in.int32());

    int address = in.int32();
    intf_checkAddrValidity(regName, text, &address, in.int32(), in.byte() % 2);
    address = in.int32();
    intf_checkAddr(regName, text, &address, in.int16(), in.int32(), in.byte() % 4);
    intf_checkAddrValidity(regName, text, nullptr, in.count(), 1);

    // The runtime sizes its vectors for the copies it asks for: keep that modest.
    QVector<QString> texts;
    QVector<int> values;
    const int start = in.int32();
    const int copies = in.int16() % 2048;
    intf_multiCopy(regName, start, copies, in.int32(), texts, values);
    multiCp(regName, format, start, copies, in.int16(), texts, values, in.int32(), text);
    return 0;
}
