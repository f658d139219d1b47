// JSON response writer: every answer of the daemon but the
// authentication-failure response goes through wHttpJsonResponse_restapi.
#include "context/response_writer.h"

#include <atomic>
#include <cstring>
#include <string>

#include "base/log.h"

int wHttpSetOperStatus(json_object* doc, const char* text) {
    if (!doc)
        return -1;
    return json_object_object_add(doc, "oper_status", json_object_new_string(text ? text : ""));
}

void wHttpSetObject(json_object* doc, json_object* value) {
    if (doc && value)
        json_object_object_add(doc, "Object", value);
}

void wHttpArrayAppend(json_object* array, json_object* value) {
    if (array && value)
        json_object_array_add(array, value);
}

void wHttpSetRequestedPath(json_object* doc, const char* path) {
    if (doc && path)
        json_object_object_add(doc, "requested_path", json_object_new_string(path));
}

void wHttpSetMethodList(json_object* doc, json_object* value) {
    if (doc && value)
        json_object_object_add(doc, "MethodList", value);
}

namespace {

std::atomic<uint8_t> gCompactOutput{0};
std::atomic<WHttpKeyRenewer> gKeyRenewer{nullptr};

bool isModifying(const char* method) {
    return method &&
           (!strcmp(method, "PUT") || !strcmp(method, "POST") || !strcmp(method, "DELETE"));
}

}  // namespace

void wHttpAttachReqCtx(CgHttpRequest* request, WHttpReqCtx* ctx) {
    cg_http_request_setuserdata(request, ctx);
}

WHttpReqCtx* wHttpReqCtx(CgHttpRequest* request) {
    return static_cast<WHttpReqCtx*>(cg_http_request_getuserdata(request));
}

void wHttpSetKeyRenewer(WHttpKeyRenewer renewer) {
    gKeyRenewer = renewer;
}

void wHttpToggleCompactOutput(void) {
    gCompactOutput.fetch_xor(1);
}

std::string wHttpAnswerText(json_object* doc) {
    json_object* object = nullptr;
    if (wHttpHtmlEncodeSwitch() == 1 && doc && json_object_object_get_ex(doc, "Object", &object))
        wHttpHtmlEncode(object);
    if (!doc)
        return "";
    return gCompactOutput.load() ? json_object_to_json_string_ext(doc, JSON_C_TO_STRING_PLAIN)
                                 : json_object_to_json_string(doc);
}

uint32_t wHttpAnswerForm(void) {
    return static_cast<uint32_t>(gCompactOutput.load()) << 8 | wHttpHtmlEncodeSwitch();
}

namespace {

// Headers, the status a bad image sets, and the hand-over (or the hold of a
// write's answer until its lock is released).
void answerText(CgHttpRequest* request, CgHttpResponse* response, std::string text,
                uint8_t chunked) {
    if (!response) {
        response = cg_http_response_new();
        cg_http_response_setstatuscode(response, 200);
    }
    cg_http_response_setheader(response, "Cache-Control", "no-cache");
    cg_http_response_setheader(response, "Content-Type", "application/json");
    if (text.find("WCFG_INVALID_IMAGE") != std::string::npos)
        cg_http_response_setstatuscode(response, 400);
    WHttpAnswer answer{response, std::move(text), chunked != 0};
    WHttpReqCtx* ctx = wHttpReqCtx(request);
    if (ctx && ctx->heldAnswer && !ctx->heldAnswer->response) {
        *ctx->heldAnswer = std::move(answer);
        return;
    }
    wHttpPostAnswer(request, answer);
}

}  // namespace

void wHttpJsonResponse_restapi(CgHttpRequest* request, CgHttpResponse* response, json_object* doc,
                               uint8_t chunked, uint8_t renewSessionKey) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() Enter\n", __func__);
    WHttpKeyRenewer renew = gKeyRenewer.load();
    if (renewSessionKey && renew && isModifying(cg_http_request_getmethod(request))) {
        if (!doc)
            doc = json_object_new_object();
        if (json_object_is_type(doc, json_type_object))
            json_object_object_add(doc, "sessionkey", json_object_new_int(renew(request)));
    }
    std::string text = wHttpAnswerText(doc);
    if (doc)
        json_object_put(doc);
    answerText(request, response, std::move(text), chunked);
}

void wHttpJsonTextResponse_restapi(CgHttpRequest* request, std::string text, uint8_t chunked) {
    answerText(request, nullptr, std::move(text), chunked);
}

const char kWHttpEventIdHeader[] = "X-Event-Id";

void wHttpValueReadResponse(CgHttpRequest* request, std::string text, uint8_t chunked,
                            uint64_t position) {
    CgHttpResponse* response = cg_http_response_new();
    cg_http_response_setstatuscode(response, 200);
    cg_http_response_setheader(response, kWHttpEventIdHeader, std::to_string(position).c_str());
    answerText(request, response, std::move(text), chunked);
}

void wHttpPostAnswer(CgHttpRequest* request, WHttpAnswer& answer) {
    CgHttpResponse* response = answer.response;
    if (!response)
        return;
    const std::string& text = answer.text;
    if (!answer.chunked) {
        cg_http_response_setcontent(response, text.data(), text.size());
        cg_http_response_setheader(response, "Content-Length", std::to_string(text.size()).c_str());
        cg_http_request_postresponse(request, response);
    } else {
        cg_http_response_setheader(response, "Transfer-Encoding", "Chunked");
        cg_http_request_postheader(request, response);
        cg_http_request_postchunkeddata(request, text.data(), text.size());
        cg_http_request_postlastchunk(request);
    }
    cg_http_response_delete(response);
    answer.response = nullptr;
}

void wHttpPostHeldAnswer(CgHttpRequest* request) {
    WHttpReqCtx* ctx = wHttpReqCtx(request);
    if (ctx && ctx->heldAnswer)
        wHttpPostAnswer(request, *ctx->heldAnswer);
}

WHttpHeldAnswer::WHttpHeldAnswer(CgHttpRequest* request) : request_(request) {
    if (WHttpReqCtx* ctx = wHttpReqCtx(request))
        ctx->heldAnswer = &answer_;
}

WHttpHeldAnswer::~WHttpHeldAnswer() {
    if (WHttpReqCtx* ctx = wHttpReqCtx(request_))
        ctx->heldAnswer = nullptr;
    wHttpPostAnswer(request_, answer_);
}
