// Arbitrary register names and address texts through the address functions.
#include "fuzz_input.h"

constexpr int MAX_FORMAT_BYTES = 10;
constexpr int MAX_TEXT_BYTES = 24;
// The runtime sizes its vectors for the copies it asks for: mostly a few, now
// and then up to a whole register's worth.
constexpr uint8_t COPIES_PICK_MANY = 248;
constexpr int FEW_COPIES = 64;
constexpr int MANY_COPIES = 2048;

static int copiesFrom(FuzzInput &in)
{
    const uint8_t pick = in.byte();
    return pick < COPIES_PICK_MANY ? pick % FEW_COPIES : in.int16() % MANY_COPIES;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in{data, size};
    const QString regName = in.regName();
    const QString format = QString::fromLatin1(in.bytes(in.byte() % MAX_FORMAT_BYTES));
    const QString text = QString::fromLatin1(in.bytes(in.byte() % MAX_TEXT_BYTES));
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

    QVector<QString> texts;
    QVector<int> values;
    const int start = in.int32();
    const int copies = copiesFrom(in);
    intf_multiCopy(regName, start, copies, in.int32(), texts, values);
    multiCp(regName, format, start, copies, in.int16(), texts, values, in.int32(), text);
    return 0;
}
