// Whole requests through the daemon's listener, in process, against a real
// store in a device root of its own: the login and account bodies, the
// value handlers' bodies (one object, batches, adds) and paths, the schema
// and method list, the event stream's paths and Last-Event-ID.  The first input byte picks the method and whether the
// request carries the fuzzer's session cookie and key; the rest is the
// target below "/api/v1/", a newline, and the body.
//
// Left out: what leaves the process or waits (device actions, the firmware
// check, WPS) and the logout, which would end the fuzzer's own session.
#include <boost/beast/http.hpp>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "datamodel/schema.h"
#include "fuzz_common.h"
#include "simulator/bus/wcfg_msg.h"
#include "http/cg_http_internal.h"
#include "base/json_util.h"
#include "base/platform.h"
#include "events/event_hub.h"
#include "rest/whttpd_rest.h"

namespace http = boost::beast::http;

namespace {

// A connection that takes answers, but cannot carry an event stream: an
// Events request runs its checks and gives its place back.
struct Capture : HttpOutput {
    std::string bytes;
    void send(std::string b) override { bytes += b; }
    bool failed() const override { return false; }
    std::shared_ptr<CgHttpStream> openStream(std::string head, const CgHttpStreamLimits&, bool,
                                             std::function<void()>) override {
        bytes += head;
        return nullptr;
    }
};

std::string gSession;
long gKey = 0;

std::string run(const char* method, const std::string& target, const std::string& body,
                bool withSession, const std::string& lastEventId = "") {
    http::request<http::string_body> msg;
    msg.method_string(method);
    msg.target(target);
    msg.version(11);
    if (withSession && !gSession.empty())
        msg.set(http::field::cookie, "Session=" + gSession);
    if (!lastEventId.empty())
        msg.set("Last-Event-ID", lastEventId);
    msg.body() = body;
    msg.prepare_payload();
    CgHttpRequest r;
    cgHttpRequestInit(r, std::move(msg), "192.168.1.100", "192.168.1.1", 443);
    Capture out;
    r.output = &out;
    wHttpRequestReceived_RESTfulAPI(&r);
    return out.bytes;
}

// The answer's body, and the session key it renews.
std::string bodyOf(const std::string& answer) {
    size_t at = answer.find("\r\n\r\n");
    std::string body = at == std::string::npos ? "" : answer.substr(at + 4);
    JsonPtr doc(jsonParseUtf8(body.c_str()));
    json_object* key = nullptr;
    if (doc && json_object_object_get_ex(doc.get(), "sessionkey", &key))
        gKey = json_object_get_int64(key);
    return body;
}

void login() {
    std::string answer =
        run("POST", "/api/v1/UserLogin", R"({"username":"admin","password":"1234abcd"})", false);
    size_t at = answer.find("Session=");
    if (at != std::string::npos)
        gSession = answer.substr(at + 8, answer.find(';', at) - at - 8);
    bodyOf(answer);
}

bool leftOut(const std::string& target) {
    const char* const kLeftOut[] = {"Reboot", "Mesh", "FOTA", "WPS", "UserLogout"};
    for (const char* word : kLeftOut)
        if (target.find(word) != std::string::npos)
            return true;
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const std::string& root = fuzzDeviceRoot();
    if (root.empty() || !wHttpSchemaLoad())
        abort();
    wHttpRestInit();
    wHttpEventsStart(WHttpEventLimits{});
    // Its threads end before the store they follow goes away.
    atexit(wHttpEventsStop);
    wcfg_msg_eidInit(WCFG_EID_WHTTPD, "wHttpd_rest");
    login();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    const char* const kMethods[] = {"GET", "PUT", "POST", "DELETE", "PATCH"};
    const char* method = kMethods[data[0] % 5];
    bool withSession = !(data[0] & 0x40);
    bool withKey = !(data[0] & 0x80);
    std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    size_t nl = rest.find('\n');
    std::string target = "/api/v1/" + rest.substr(0, nl);
    std::string body = nl == std::string::npos ? "" : rest.substr(nl + 1);
    if (leftOut(target) || target.find_first_of(std::string("\r\n\0", 3)) != std::string::npos)
        return 0;
    if (withKey)
        target += (target.find('?') == std::string::npos ? "?" : "&") + std::string("sessionkey=") +
                  std::to_string(gKey);
    // An event stream takes no body: the body's text is its Last-Event-ID.
    bool events = target.find("Events") != std::string::npos;
    std::string lastEventId =
        events && body.find_first_of(std::string("\r\n\0", 3)) == std::string::npos ? body : "";
    std::string answer = run(method, target, body, withSession, lastEventId);
    fuzzRequireUtf8(bodyOf(answer));
    // An account change is undone, so that the next inputs still get in.
    if (target.find("UserUpdate") != std::string::npos &&
        answer.find("\"Success\"") != std::string::npos) {
        JsonPtr doc(jsonParseUtf8(body.c_str()));
        JsonPtr undo(json_object_new_object());
        json_object_object_add(undo.get(), "old_username",
                               json_object_new_string(jsonString(doc.get(), "new_username")));
        json_object_object_add(undo.get(), "old_password",
                               json_object_new_string(jsonString(doc.get(), "new_password")));
        json_object_object_add(undo.get(), "new_username", json_object_new_string("admin"));
        json_object_object_add(undo.get(), "new_password", json_object_new_string("1234abcd"));
        bodyOf(run("PUT", "/api/v1/UserUpdate?sessionkey=" + std::to_string(gKey),
                   json_object_to_json_string(undo.get()), true));
    }
    // The session ended (its account changed): a new one.
    if (answer.find(" 401 ") != std::string::npos && withSession &&
        run("GET", "/api/v1/MethodList", "", true).find(" 401 ") != std::string::npos)
        login();
    return 0;
}
