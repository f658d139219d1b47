// discover: finds devices on the network by their discovery datagram.  The
// request goes to one address or to the LAN broadcast; every device that
// answers within the wait is listed, with the address it answered from.
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>

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

// Collects the answers until `waitMs` has passed since the request.
void collect(int fd, long waitMs, json_object* list) {
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
        JsonPtr answer = n > 0 ? parseAnswer(buf, static_cast<size_t>(n)) : nullptr;
        if (!answer)
            continue;  // not a discovery answer: ignored, like the device does
        char ip[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &from.sin_addr, ip, sizeof ip);
        json_object_object_add(answer.get(), "Address", json_object_new_string(ip));
        json_object_array_add(list, answer.release());
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
    JsonPtr list(json_object_new_array());
    collect(fd.get(), waitMs, list.get());
    if (json_object_array_length(list.get()) == 0)
        return fail(kFailed, "no device answered within " + std::to_string(waitMs) + " ms");
    printJson(list.get(), ctx.compact);
    return kOk;
}

}  // namespace whttpctl
