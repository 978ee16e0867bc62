// The smallest runtime: loads the driver by its path, polls a PLC over TCP
// with plain blocking socket calls, writes two values and prints every change
// the driver reports.   minimal_runtime DRIVER.so 127.0.0.1 PORT [SECONDS]
#include "ls_xbc_cpu_direct.h"

#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {
using Clock = std::chrono::steady_clock;
using Ms = std::chrono::milliseconds;

[[noreturn]] void fail(const char *what, const char *detail = "")
{
    std::fprintf(stderr, "minimal_runtime: %s%s\n", what, detail);
    std::exit(1);
}

// The driver's functions, resolved by name: intf.getSendFrame and so on.
struct Functions {
#define XBC_POINTER(name) decltype(&intf_##name) name = nullptr;
    XBC_FOR_EACH_EXPORTED_FUNCTION(XBC_POINTER)
#undef XBC_POINTER
} intf;

constexpr int REPLY_TIMEOUT_MS = 500;
constexpr int IDLE_MS = 50;
constexpr int STATION = 1;
const char *const PROPERTIES = "1#0#0#3#64"; // driverId 1, 3 tries a frame, 64 words a request

// Runtime memory the driver keeps pointers to: it must outlive the run.
unsigned char statusBlock[64 * 1024], recipeBuffer[64 * 1024];
QMutex runtimeLock;
QList<QString> bitRegisters; // one byte a value in intf_getData; words take two

// The driver calls this on the thread of the call that changed a value (here
// intf_dealRcvFrame or intf_setData), after releasing its own lock.
void onValueChange(int driverId, int station, const QString &regName, int address)
{
    if (regName == QLatin1String("-1")) { // the end of a condition read
        std::printf("condition read ended%s\n", address == 0 ? "" : " with an error");
        return;
    }
    if (regName == QLatin1String("RWI")) // a word of a recipe upload: this runtime has no recipe
        return;
    unsigned char value[2] = {};
    intf.getData(station, regName, address, 1, value);
    const int shown = bitRegisters.contains(regName) ? value[0] : value[0] | value[1] << 8;
    std::printf("driver %d station %d: %s %d = %d\n", driverId, station,
                regName.toLatin1().constData(), address, shown);
}

// Address text to the driver's number ("35.3" of M_bit is 35 * 16 + 3).
KEY_ADDRESS key(const char *regName, const char *text, int count)
{
    KEY_ADDRESS k;
    k.stationNo = STATION;
    k.regName = QString::fromLatin1(regName);
    k.count = count;
    k.dataKind = bitRegisters.contains(k.regName) ? -1 : 0;
    if (intf.checkAddr(k.regName, QString::fromLatin1(text), &k.address, k.dataKind, count, 0) !=
        ADDR_VALID)
        fail("not an address: ", text);
    return k;
}

// Collects a reply: up to EOT, replyLen bytes or the timeout, whichever is first.
QByteArray receiveReply(int fd, int replyLen)
{
    QByteArray reply;
    const auto deadline = Clock::now() + Ms(REPLY_TIMEOUT_MS);
    while (!reply.contains('\x04') && reply.size() < replyLen) {
        const auto left = std::chrono::duration_cast<Ms>(deadline - Clock::now());
        pollfd p{fd, POLLIN, 0};
        if (left.count() <= 0 || poll(&p, 1, int(left.count())) <= 0)
            break; // timeout: hand over what came, the driver retries or gives up
        char bytes[FRAME_BYTES];
        const ssize_t n = recv(fd, bytes, sizeof bytes, 0);
        if (n <= 0)
            fail("the PLC closed the link");
        reply.append(bytes, int(n));
    }
    return reply;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 4)
        fail("usage: minimal_runtime DRIVER.so IP PORT [SECONDS]");
    // 1. Load the library and resolve every exported function by its name.
    void *library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (!library)
        fail(dlerror());
#define XBC_RESOLVE(name)                                                                          \
    if (!(intf.name = reinterpret_cast<decltype(intf.name)>(dlsym(library, "intf_" #name))))       \
        fail("the library lacks intf_", #name);
    XBC_FOR_EACH_EXPORTED_FUNCTION(XBC_RESOLVE)
#undef XBC_RESOLVE
    std::printf("driver version %s\n", intf.getVersion().toLatin1().constData());
    intf.getRegListByType(0, bitRegisters);

    // 2. Callback, properties and pointers, then the watched addresses.
    intf.setAddrValueChangeCallBack(&onValueChange);
    int status = 0;
    intf.initProperty(statusBlock, 0, recipeBuffer, &status, PROPERTIES, &runtimeLock);
    QList<KEY_ADDRESS> watched{key("D_W", "100", 4), key("M_bit", "35.3", 3), key("TX", "7", 1)};
    std::printf("%d read block(s)\n", intf.addrMerge(&watched));

    // 3. The communication loop: ask for a frame, send it, hand the reply back.
    sockaddr_in plc{AF_INET, htons(quint16(std::atoi(argv[3]))), {}, {}};
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (inet_pton(AF_INET, argv[2], &plc.sin_addr) != 1 ||
        connect(fd, reinterpret_cast<sockaddr *>(&plc), sizeof plc) != 0)
        fail("cannot connect to ", argv[2]);
    const auto start = Clock::now();
    const auto seconds = std::chrono::duration<double>(argc > 4 ? std::atof(argv[4]) : 3.0);
    bool wrote = false;
    FRAME_PRO frame;
    while (Clock::now() - start < seconds) {
        if (!wrote && Clock::now() - start > seconds / 3) {
            // What a screen does; the driver shows the new values at once.
            unsigned char word[2] = {1234 & 0xFF, 1234 >> 8}, bit[1] = {1};
            intf.setData(STATION, QStringLiteral("D_W"), 101, 1, word, 0);
            intf.setData(STATION, QStringLiteral("M_bit"), 35 * 16 + 4, 1, bit, 0);
            intf.addConditionRead(key("D_W", "200", 2), 0);
            wrote = true;
        }
        if (intf.getSendFrame(&frame) != 1) { // nothing to send
            std::this_thread::sleep_for(Ms(IDLE_MS));
            continue;
        }
        QByteArray reply; // a zero-length frame (the handshake) is not sent
        if (frame.frameLen > 0) {
            char late[FRAME_BYTES]; // a reply that came after its timeout is not this one's
            while (recv(fd, late, sizeof late, MSG_DONTWAIT) > 0) {
            }
            send(fd, frame.frame, size_t(frame.frameLen), MSG_NOSIGNAL);
            reply = receiveReply(fd, frame.replyLen);
        }
        QString request;
        const int result = intf.dealRcvFrame(reply, request);
        if (result == RECEIVE_RETRY || result == RECEIVE_ABANDONED)
            std::printf("%s %s\n", result == RECEIVE_RETRY ? "retry" : "gave up",
                        request.toLatin1().constData());
    }
    close(fd);
    return 0;
}
