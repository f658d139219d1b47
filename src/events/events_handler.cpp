// The Events handler: checks what the client watches and where it resumes,
// takes a place among the streams and opens the stream.
#include "events/events_handler.h"

#include <cstring>
#include <memory>

#include "auth/accounts.h"
#include "datamodel/schema.h"
#include "base/log.h"
#include "device/wcfg.h"
#include "context/response_writer.h"
#include "events/event_hub.h"
#include "events/event_render.h"
#include "events/event_text.h"

namespace {

// A JSON answer with a status of its own.
void answer(CgHttpRequest* request, int status, const char* operStatus, int retryMs = 0) {
    CgHttpResponse* response = cg_http_response_new();
    cg_http_response_setstatuscode(response, status);
    if (retryMs > 0)
        cg_http_response_setheader(response, "Retry-After",
                                   std::to_string((retryMs + 999) / 1000).c_str());
    json_object* doc = json_object_new_object();
    wHttpSetOperStatus(doc, operStatus);
    wHttpJsonResponse_restapi(request, response, doc, 0, 0);
}

// Whether the client reads server-sent events (a browser's EventSource says
// so): it is turned away with an answer it can act on.
bool acceptsEventStream(CgHttpRequest* request) {
    const char* accept = cg_http_request_getheader(request, "Accept");
    return accept && strstr(accept, "text/event-stream");
}

// No place for the stream.  Any status but 200 makes an EventSource give up
// for good, and its script learns neither the status nor Retry-After: a
// client of event streams gets a stream of its own that says when to come
// back ("retry:") and why ("busy"), and ends.  It comes back by itself with
// the Last-Event-ID it had.  Every other client gets 503 with Retry-After.
void refuse(CgHttpRequest* request, WHttpEventAdmit why) {
    bool session = why == WHttpEventAdmit::SessionFull;
    // Another stream of the same session must end first: that takes longer.
    int retryMs = wHttpEventRetryMs(session ? 10000 : 5000);
    const char* reason = session ? "too many streams of this session"
                         : why == WHttpEventAdmit::AddressFull
                             ? "too many streams from this address"
                         : why == WHttpEventAdmit::Stopped ? "shutdown"
                                                           : "too many streams";
    if (!acceptsEventStream(request))
        return answer(request, 503, "Too many event streams", retryMs);
    CgHttpResponse* head = cg_http_response_new();
    cg_http_response_setstatuscode(head, 200);
    cg_http_response_setheader(head, "Content-Type", "text/event-stream");
    cg_http_response_setheader(head, "Cache-Control", "no-cache");
    std::shared_ptr<CgHttpStream> out =
        cg_http_request_openstream(request, head, CgHttpStreamLimits{}, nullptr);
    cg_http_response_delete(head);
    if (out)
        cg_http_stream_end(out.get(), wHttpEventRetry(retryMs) +
                                          wHttpEventNotice("busy", wHttpEventReasonData(reason)));
}

// Every "path" must be a well-formed object path of the REST API.
bool takePaths(CgHttpRequest* request, WHttpEventStream& s) {
    size_t n = cg_http_request_getparamcount(request, "path");
    for (size_t i = 0; i < n; ++i) {
        const char* p = cg_http_request_getparamat(request, "path", i);
        if (!p || !wHttpWatchPathWellFormed(p) ||
            !wHttpGetSchemaObj(p, nullptr, 0, nullptr, 0, nullptr))
            return false;
        s.paths.emplace_back(p);
    }
    return true;
}

// Where the client resumes: the Last-Event-ID header (an EventSource sends
// it when it connects again, with the newest id it saw), else the
// lastEventId parameter (which a new EventSource, that cannot set headers,
// puts in its URL).
void takeResume(CgHttpRequest* request, WHttpEventStream& s) {
    const char* last = cg_http_request_getheader(request, "Last-Event-ID");
    if (!last)
        last = cg_http_request_getparam(request, "lastEventId");
    if (!last)
        return;
    s.resumeAfter = wHttpParseLastEventId(last);
    s.resumeUnreadable = !s.resumeAfter;
}

// Who the stream belongs to: the session the request was admitted with.
void takeOwner(CgHttpRequest* request, WHttpEventStream& s) {
    WHttpReqCtx* ctx = wHttpReqCtx(request);
    WHttpSessionRef& o = s.owner;
    o.user = ctx ? ctx->userName : "";
    o.sessionID = ctx ? ctx->sessionID : "";
    o.group = ctx ? ctx->group : 0;
    o.remote = cg_http_request_getremoteaddress(request);
    o.local = cg_http_request_getlocaladdress(request);
    std::shared_ptr<const WHttpAccountSet> accounts = wHttpAccounts();
    if (const WHttpAccount* a = accounts->find(o.user.c_str()))
        o.shadow = a->shadow;
}

}  // namespace

int wHttpEventsHandle(CgHttpRequest* request, uint8_t /*chunked*/, int /*spare*/) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() Enter\n", __func__);
    auto stream = std::make_shared<WHttpEventStream>();
    if (!takePaths(request, *stream)) {
        answer(request, 400, "Invalid object");
        return 0;
    }
    takeResume(request, *stream);
    stream->openedAt = wcfgFeJournalPosition();
    takeOwner(request, *stream);
    WHttpEventAdmit admit = wHttpEventsReserve(stream);
    if (admit != WHttpEventAdmit::Yes) {
        refuse(request, admit);
        return 0;
    }
    CgHttpResponse* head = cg_http_response_new();
    cg_http_response_setstatuscode(head, 200);
    cg_http_response_setheader(head, "Content-Type", "text/event-stream");
    cg_http_response_setheader(head, "Cache-Control", "no-cache");
    CgHttpStreamLimits limits;
    limits.maxPieces = static_cast<size_t>(wHttpEventLimits().queue);
    stream->out = cg_http_request_openstream(request, head, limits, [] { wHttpEventsClosed(); });
    cg_http_response_delete(head);
    if (!stream->out) {
        wHttpEventsAbandon(stream);
        return 0;
    }
    wHttpEventsOpened(stream);
    return 1;
}
