// The message bus over Unix-domain datagram sockets below the device root.
#include "simulator/bus/wcfg_msg.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "simulator/bus/wcfg_wire.h"
#include "base/platform.h"
#include "device/wcfg.h"
#include "simulator/store/store.h"

namespace {

std::atomic<int> gEid{0};
int gServerFd = -1;
int gWakeFd = -1;
sockaddr_un gServerAddr{};
std::atomic<uint32_t> gSeq{1};
// Set once at start-up, before any thread sends or serves.
void (*gServerStart)() = nullptr;
int gStandInEid = -1;
WcfgStandInReply gStandIn = nullptr;

std::string busDir() {
    return platformPath("/var/run/wcfg");
}

bool makeAddr(const std::string& path, sockaddr_un& addr) {
    if (path.size() >= sizeof addr.sun_path)
        return false;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    return true;
}

bool endpointAddr(int eid, sockaddr_un& addr) {
    return makeAddr(busDir() + "/eid." + std::to_string(eid), addr);
}

void ensureDir() {
    std::string dir = busDir();
    if (!platformMakeDirs(dir))
        wlog_log_f(WLOG_ERR, "wcfg_msg", __LINE__, __func__, "cannot create %s\n", dir.c_str());
}

// Sends a message whose header is in host order, its header turned into
// wire order on the way; -errno on failure.
int sendTo(int fd, const sockaddr_un& addr, const void* msg, size_t len) {
    std::vector<char> wire(static_cast<const char*>(msg), static_cast<const char*>(msg) + len);
    wcfg::headerToWire(wire.data(), wire.size());
    ssize_t n = sendto(fd, wire.data(), wire.size(), 0, reinterpret_cast<const sockaddr*>(&addr),
                       sizeof addr);
    return n < 0 ? -errno : 0;
}

}  // namespace

int wbus::eidInit(int eid, const char* /*identity*/) {
    gEid = eid;
    return 0;
}

int wbus::serverInit() {
    if (gServerFd >= 0)
        return 0;
    ensureDir();
    if (!endpointAddr(gEid, gServerAddr))
        return -1;
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    unlink(gServerAddr.sun_path);
    if (bind(fd, reinterpret_cast<sockaddr*>(&gServerAddr), sizeof gServerAddr) < 0) {
        close(fd);
        return -1;
    }
    int buf = 1 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buf, sizeof buf);
    gWakeFd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    gServerFd = fd;
    // The process that serves the bus also runs the services that work by
    // themselves.
    if (gServerStart)
        gServerStart();
    return 0;
}

void wcfg_msg_setServerStartHook(void (*start)(void)) {
    gServerStart = start;
}

void wcfg_msg_setStandIn(int eid, WcfgStandInReply reply) {
    gStandInEid = eid;
    gStandIn = reply;
}

void wbus::serverWakeup() {
    if (gWakeFd < 0)
        return;
    int saved = errno;
    sendto(gWakeFd, "", 0, 0, reinterpret_cast<const sockaddr*>(&gServerAddr), sizeof gServerAddr);
    errno = saved;
}

int wbus::serverRecv(void** msg, int timeoutMs) {
    if (!msg || gServerFd < 0)
        return -1;
    pollfd p{gServerFd, POLLIN, 0};
    int r = poll(&p, 1, timeoutMs > 0 ? timeoutMs : -1);
    if (r == 0 || (r < 0 && errno != EINTR))
        return -1;
    // Take the next real message; empty datagrams are wake-ups and a wait
    // that a signal interrupted ends with -1 once they are drained.
    std::vector<char> buf(WCFG_MSG_MAX_SIZE);
    for (;;) {
        ssize_t n = recv(gServerFd, buf.data(), buf.size(), MSG_DONTWAIT);
        if (n < 0)
            return -1;
        if (n == 0)
            continue;
        if (n < static_cast<ssize_t>(sizeof(uint32_t)))
            return -1;
        // A message shorter than a header is read as one padded with zeros;
        // of it, the fields it holds whole are converted, as its sender did.
        size_t size = std::max(static_cast<size_t>(n), sizeof(wcfgMsgHdr_t));
        void* out = malloc(size);
        if (!out)
            return -1;
        memset(out, 0, sizeof(wcfgMsgHdr_t));
        memcpy(out, buf.data(), n);
        wcfg::headerFromWire(out, static_cast<size_t>(n));
        *msg = out;
        return 0;
    }
}

int wbus::send(int dstEid, const void* msg, size_t length) {
    sockaddr_un addr;
    if (!msg || !endpointAddr(dstEid, addr))
        return WCFG_INVALID_EID;
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return WCFG_INTERNAL_ERROR;
    int rc = sendTo(fd, addr, msg, length);
    close(fd);
    return rc == 0 ? 0 : WCFG_INVALID_EID;
}

namespace {

// A reply socket of this process, bound to a fresh name on the bus and
// removed again when it goes out of scope.
class ReplySocket {
  public:
    ReplySocket() {
        ensureDir();
        static std::atomic<unsigned> counter{0};
        if (!makeAddr(busDir() + "/c." + std::to_string(getpid()) + "." + std::to_string(counter++),
                      self_))
            return;
        fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd_ < 0)
            return;
        unlink(self_.sun_path);
        if (bind(fd_, reinterpret_cast<sockaddr*>(&self_), sizeof self_) < 0) {
            close(fd_);
            fd_ = -1;
        }
    }
    ~ReplySocket() {
        if (fd_ < 0)
            return;
        close(fd_);
        unlink(self_.sun_path);
    }
    ReplySocket(const ReplySocket&) = delete;
    ReplySocket& operator=(const ReplySocket&) = delete;
    int fd() const { return fd_; }

  private:
    int fd_ = -1;
    sockaddr_un self_{};
};

// A request to an endpoint nobody serves: the platform's own stand-in of that
// service answers, or the caller waits its time-out out, in platform time.
int standInReply(const std::vector<char>& msg, int dstEid, void** reply, int timeoutMs) {
    if (!gStandIn || dstEid != gStandInEid)
        return WCFG_INVALID_EID;
    *reply = gStandIn(msg.data(), msg.size());
    if (*reply)
        return 0;
    std::this_thread::sleep_for(
        std::chrono::milliseconds(static_cast<long>(timeoutMs) * platformSecondMs() / 1000));
    return WCFG_TIMEOUT;
}

// Waits up to `timeoutMs` for the reply that carries `seq`; others are
// passed over.
int awaitReply(int fd, uint32_t seq, void** reply, int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    std::vector<char> buf(WCFG_MSG_MAX_SIZE);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        if (left <= 0)
            return WCFG_TIMEOUT;
        pollfd p{fd, POLLIN, 0};
        int r = poll(&p, 1, static_cast<int>(left));
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            return WCFG_TIMEOUT;
        ssize_t n = recv(fd, buf.data(), buf.size(), 0);
        if (n < static_cast<ssize_t>(sizeof(wcfgMsgHdr_t)))
            continue;
        wcfg::headerFromWire(buf.data(), static_cast<size_t>(n));
        if (reinterpret_cast<wcfgMsgHdr_t*>(buf.data())->seq != seq)
            continue;
        void* copy = malloc(n + 1);
        if (!copy)
            return WCFG_TIMEOUT;
        memcpy(copy, buf.data(), n);
        static_cast<char*>(copy)[n] = '\0';
        *reply = copy;
        return 0;
    }
}

}  // namespace

int wbus::sendAndGetReply(const void* request, void** reply, int timeoutMs) {
    if (!request || !reply)
        return WCFG_INVALID_ARGUMENTS;
    const auto* hdr = static_cast<const wcfgMsgHdr_t*>(request);
    size_t len = sizeof(wcfgMsgHdr_t) + hdr->length;
    if (len > WCFG_MSG_MAX_SIZE)
        return WCFG_INVALID_ARGUMENTS;
    std::vector<char> msg(static_cast<const char*>(request),
                          static_cast<const char*>(request) + len);
    uint32_t seq = gSeq++;
    reinterpret_cast<wcfgMsgHdr_t*>(msg.data())->seq = seq;

    sockaddr_un dst;
    if (!endpointAddr(hdr->dstEid, dst))
        return WCFG_INVALID_EID;
    int rc;
    {
        ReplySocket sock;
        if (sock.fd() < 0)
            return WCFG_INTERNAL_ERROR;
        rc = sendTo(sock.fd(), dst, msg.data(), len);
        if (rc == 0)
            return awaitReply(sock.fd(), seq, reply, timeoutMs);
    }
    if (rc == -ENOENT || rc == -ECONNREFUSED)
        return standInReply(msg, hdr->dstEid, reply, timeoutMs);
    return WCFG_INVALID_EID;
}

namespace wcfg {

void notifyDataModelChanged() {
    std::string dir = busDir();
    DIR* d = opendir(dir.c_str());
    if (!d)
        return;
    wcfgMsgHdr_t hdr{};
    hdr.type = WCFG_MSG_DATA_MODEL_CHANGED;
    hdr.srcEid = 1;
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    while (fd >= 0) {
        dirent* e = readdir(d);
        if (!e)
            break;
        if (strncmp(e->d_name, "eid.", 4) != 0)
            continue;
        sockaddr_un addr;
        if (!makeAddr(dir + "/" + e->d_name, addr))
            continue;
        hdr.dstEid = static_cast<uint8_t>(atoi(e->d_name + 4));
        if (sendTo(fd, addr, &hdr, sizeof hdr) == -ECONNREFUSED)
            unlink(addr.sun_path);
    }
    if (fd >= 0)
        close(fd);
    closedir(d);
}

}  // namespace wcfg
