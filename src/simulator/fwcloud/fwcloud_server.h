// The HTTPS front of the stand-in cloud firmware service: a self-signed
// certificate made at start, one thread per connection, one request per
// connection.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace fwcloud {

// One answer of the service.
struct Answer {
    int status = 200;
    std::string contentType = "application/json";
    std::string body;
    int trickleMs = 0;  // > 0: send the body one byte per this many milliseconds
};

using Handler = std::function<Answer(const std::string& method, const std::string& target,
                                     const std::string& host)>;

// Listens on `address`:`port` (0 picks a free port) with a certificate that
// names `names` (host names or IP addresses), calls `ready` with the port
// once listening, then serves until the process ends.  Returns a non-zero
// exit status when it cannot listen.
int serve(const std::string& address, int port, const std::vector<std::string>& names,
          const Handler& handler, const std::function<void(int port)>& ready);

}  // namespace fwcloud
