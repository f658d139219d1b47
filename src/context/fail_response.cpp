// The authentication-failure answer: a refused login state or session key is
// answered with a status of its own and an "oper_status" that never tells a
// wrong user name from a wrong password or a lock.
#include <cstring>
#include <string>

#include "base/platform.h"
#include "context/response_writer.h"

namespace {

// Status codes by result text; any other result is 401.
const struct {
    const char* result;
    int status;
} kStatus[] = {{"Timeout", 504}, {"Internal Error", 500}, {"Invalid SessionKey", 403}};

// Results a client must not tell apart.
const char* const kHidden[] = {"Invalid Username", "Invalid Password", "Locked User"};

}  // namespace

void wHttpdSessionFailHandle(const char* result, CgHttpRequest* request) {
    if (!result)
        result = "unknown";
    wos_pk("%s() authResult=%s\n", __func__, result);
    int status = 401;
    for (const auto& s : kStatus)
        if (!strcmp(result, s.result))
            status = s.status;
    const char* text = result;
    for (const char* hidden : kHidden)
        if (!strcmp(result, hidden))
            text = "Invalid Username or Password";
    json_object* doc = json_object_new_object();
    json_object_object_add(doc, "oper_status", json_object_new_string(text));
    const char* body = json_object_to_json_string(doc);
    CgHttpResponse* response = cg_http_response_new();
    cg_http_response_setstatuscode(response, status);
    cg_http_response_setheader(response, "Content-Type", "application/json");
    cg_http_response_setcontent(response, body, strlen(body));
    cg_http_response_setheader(response, "Content-Length", std::to_string(strlen(body)).c_str());
    cg_http_request_postresponse(request, response);
    cg_http_response_delete(response);
    json_object_put(doc);
}
