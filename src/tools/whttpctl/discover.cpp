// discover: finds devices on the network by their discovery datagram.  The
// request goes to one address or to the LAN broadcast; every device that
// answers within the wait is listed once, with the address it answered from.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <utility>
#include <vector>

#include "commands.h"
#include "fd.h"
#include "json.h"
#include "output.h"

namespace whttpctl {

namespace {

// Version 1, type 1 (a request), the payload's length in two bytes
// (big-endian), then the payload: the app's magic number and version.
std::string request() {
    const std::string payload = R"({"MagicNum":"Q8152","AppVersion":1})";
    std::string d = {1, 1, static_cast<char>(payload.size() >> 8),
                     static_cast<char>(payload.size() & 0xff)};
    return d + payload;
}

// An answer: version 1, type 2, a length that fits, a JSON object.
JsonPtr parseAnswer(const char* data, size_t size) {
    if (size < 4 || data[0] != 1 || data[1] != 2)
        return nullptr;
    size_t length =
        (static_cast<unsigned char>(data[2]) << 8) | static_cast<unsigned char>(data[3]);
    if (length > size - 4)
        return nullptr;
    JsonPtr doc = parseJson(std::string(data + 4, length));
    return doc && json_object_is_type(doc.get(), json_type_object) ? std::move(doc) : nullptr;
}

bool numberOption(const Context& ctx, const char* name, long low, long high, long& value) {
    if (!ctx.line.has(name))
        return true;
    std::string text = ctx.line.option(name);
    char* end = nullptr;
    value = strtol(text.c_str(), &end, 10);
    return !text.empty() && *end == '\0' && value >= low && value <= high;
}

bool resolve(const std::string& host, long port, sockaddr_in& to) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || !found)
        return false;
    memcpy(&to, found->ai_addr, sizeof to);
    freeaddrinfo(found);
    to.sin_port = htons(static_cast<uint16_t>(port));
    return true;
}

// Whether `to` is a broadcast address: the limited one or the directed one
// of an interface.  Answers to a broadcast come from every device; to any
// other address, from that address only.
bool isBroadcast(const sockaddr_in& to) {
    if (to.sin_addr.s_addr == htonl(INADDR_BROADCAST))
        return true;
    ifaddrs* all = nullptr;
    if (getifaddrs(&all) != 0)
        return false;
    bool found = false;
    for (ifaddrs* i = all; i && !found; i = i->ifa_next) {
        auto* b = reinterpret_cast<sockaddr_in*>(i->ifa_broadaddr);
        found = (i->ifa_flags & IFF_BROADCAST) && b && b->sin_family == AF_INET &&
                b->sin_addr.s_addr == to.sin_addr.s_addr;
    }
    freeifaddrs(all);
    return found;
}

// The answers kept: one per sender, its latest, and no more senders than a
// LAN holds devices, so that a flood of datagrams cannot grow the list.
constexpr size_t kMaxSenders = 256;

struct Answers {
    std::vector<std::pair<in_addr_t, JsonPtr>> bySender;

    void keep(in_addr_t from, JsonPtr answer) {
        for (auto& [sender, doc] : bySender) {
            if (sender == from) {
                doc = std::move(answer);
                return;
            }
        }
        if (bySender.size() < kMaxSenders)
            bySender.emplace_back(from, std::move(answer));
    }
};

// Collects the answers until `waitMs` has passed since the request; with
// `only` set, from that address alone (anyone on the LAN can send a datagram
// that looks like an answer).
void collect(int fd, long waitMs, const in_addr_t* only, Answers& answers) {
    using Clock = std::chrono::steady_clock;
    auto deadline = Clock::now() + std::chrono::milliseconds(waitMs);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd p{fd, POLLIN, 0};
        if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) <= 0)
            return;
        char buf[8192];
        sockaddr_in from{};
        socklen_t len = sizeof from;
        ssize_t n = recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &len);
        if (n <= 0 || from.sin_family != AF_INET || (only && from.sin_addr.s_addr != *only))
            continue;
        JsonPtr answer = parseAnswer(buf, static_cast<size_t>(n));
        if (!answer)
            continue;  // not a discovery answer: ignored, like the device does
        char ip[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &from.sin_addr, ip, sizeof ip);
        json_object_object_add(answer.get(), "Address", json_object_new_string(ip));
        answers.keep(from.sin_addr.s_addr, std::move(answer));
    }
}

}  // namespace

int cmdDiscover(Context& ctx) {
    std::string host = ctx.line.operands.empty() ? "255.255.255.255" : ctx.line.operands[0];
    long port = 263, waitMs = 1000;
    if (!numberOption(ctx, "--port", 1, 65535, port))
        return fail(kUsage, "--port takes a number from 1 to 65535");
    if (!numberOption(ctx, "--wait", 1, 60000, waitMs))
        return fail(kUsage, "--wait takes milliseconds from 1 to 60000");
    sockaddr_in to{};
    if (!resolve(host, port, to))
        return fail(kUsage, "cannot resolve " + host + " to an IPv4 address");
    Fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    int on = 1;
    if (fd.get() < 0 || setsockopt(fd.get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0)
        return fail(kNetwork, std::string("socket: ") + strerror(errno));
    std::string d = request();
    if (sendto(fd.get(), d.data(), d.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) < 0)
        return fail(kNetwork, host + ": " + strerror(errno));
    Answers answers;
    collect(fd.get(), waitMs, isBroadcast(to) ? nullptr : &to.sin_addr.s_addr, answers);
    JsonPtr list(json_object_new_array());
    for (auto& [sender, doc] : answers.bySender)
        json_object_array_add(list.get(), doc.release());
    if (json_object_array_length(list.get()) == 0)
        return fail(kFailed, "no device answered within " + std::to_string(waitMs) + " ms");
    printJson(list.get(), ctx.compact);
    return kOk;
}

}  // namespace whttpctl
