// Arbitrary replies handed to the receive side after a varied setup (see
// receive_harness.h). Built twice: fuzz_receive keeps counts modest so that it
// runs fast; fuzz_receive_large takes any count and fills the write queue.
#include "receive_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in{data, size};
    receiveOneInput(in);
    return 0;
}
