// A library that exports only part of the driver's names, for the runtime
// stand-in's load errors.
#define STUB_EXPORT extern "C" __attribute__((visibility("default")))

STUB_EXPORT int intf_getSendFrame(void *)
{
    return 0;
}
STUB_EXPORT int intf_getData(int, void *, int, int, unsigned char *)
{
    return 1;
}
extern "C" {
__attribute__((visibility("default"))) int driver = 0;
}
