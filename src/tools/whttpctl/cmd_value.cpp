// The data-model commands: get, set, add, del, batch, schema, methods.
// Paths and JSON are checked here, before anything is sent, so that a typo
// costs no request (and no session key).
#include <cctype>
#include <fstream>
#include <iostream>

#include "api.h"
#include "commands.h"
#include "output.h"

namespace whttpctl {

namespace {

constexpr size_t kMaxBatchFile = 1 << 20;

}  // namespace

// A TR-181 object path as it may stand in the URI: "Device." first, then
// names, instance numbers and dots only.  Anything else (a '?', '&', '#',
// '/', '%' or white space) would change what the request means.
int checkPath(const std::string& path) {
    if (path.rfind("Device.", 0) != 0)
        return fail(kUsage, "a path begins with \"Device.\": " + path);
    for (unsigned char c : path) {
        if (!isalnum(c) && c != '.' && c != '_' && c != '-')
            return fail(kUsage, "a path holds letters, digits, '.', '_' and '-' only: " + path);
    }
    return kOk;
}

namespace {

// `text` as a JSON object, or a one-line error.
int parseObject(const std::string& text, JsonPtr& out) {
    out = parseJson(text);
    if (!out || !json_object_is_type(out.get(), json_type_object))
        return fail(kUsage, "invalid JSON (an object is expected): " + text.substr(0, 80));
    return kOk;
}

std::string plain(json_object* doc) {
    return json_object_to_json_string_ext(doc, JSON_C_TO_STRING_PLAIN);
}

int run(Context& ctx, const Call& call) {
    Answer answer;
    if (int rc = sendCall(ctx, call, answer))
        return rc;
    return report(ctx, answer);
}

// The body of a batch: the file holds the whole body or just the array of
// objects; every element's path is checked like a single path.
int batchBody(const std::string& text, JsonPtr& body) {
    body = parseJson(text);
    if (body && json_object_is_type(body.get(), json_type_array)) {
        json_object* whole = json_object_new_object();
        json_object_object_add(whole, "TR181_Objects", json_object_get(body.get()));
        body.reset(whole);
    }
    json_object* list = nullptr;
    if (!body || !json_object_is_type(body.get(), json_type_object) ||
        !json_object_object_get_ex(body.get(), "TR181_Objects", &list) ||
        !json_object_is_type(list, json_type_array))
        return fail(kUsage,
                    "invalid batch: a JSON array of objects, or an object with "
                    "\"TR181_Objects\", is expected");
    json_object_object_add(body.get(), "MultiObjects", json_object_new_boolean(1));
    for (size_t i = 0; i < json_object_array_length(list); ++i) {
        json_object* e = json_object_array_get_idx(list, i);
        if (!json_object_is_type(e, json_type_object))
            return fail(kUsage, "invalid batch: element " + std::to_string(i) + " is no object");
        if (int rc = checkPath(memberText(e, "object_path")))
            return rc;
    }
    return kOk;
}

// A batch answers "Success" overall whatever its elements did: each element
// read back carries its own status, and one that could not be read back is
// missing.  Either makes the command fail.
int judgeElements(json_object* body, const Answer& answer) {
    json_object *sent = nullptr, *got = nullptr;
    json_object_object_get_ex(body, "TR181_Objects", &sent);
    json_object_object_get_ex(answer.doc.get(), "Object", &got);
    size_t n = json_object_is_type(got, json_type_array) ? json_object_array_length(got) : 0;
    int rc = kOk;
    for (size_t i = 0; i < n; ++i) {
        json_object* e = json_object_array_get_idx(got, i);
        std::string oper = memberText(e, "oper_status");
        if (oper != "Success")
            rc = fail(kFailed, memberText(e, "requested_path") + ": " + oper);
    }
    if (n < json_object_array_length(sent))
        rc = fail(kFailed, std::to_string(json_object_array_length(sent) - n) +
                               " object(s) of the batch missing from the answer");
    return rc;
}

// Reads at most one byte more than a batch may hold: enough to tell that a
// file is too large, however large (or endless, like /dev/zero) it is.
int readFile(const std::string& name, std::string& text) {
    std::ifstream file;
    std::istream* in = &std::cin;
    if (name != "-") {
        file.open(name, std::ios::binary);
        in = &file;
    }
    text.resize(kMaxBatchFile + 1);
    in->read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<size_t>(in->gcount()));
    if (in->bad() || (!*in && !in->eof()) || !(name == "-" || file.is_open()))
        return fail(kUsage, "cannot read " + name);
    if (text.size() > kMaxBatchFile)
        return fail(kUsage, name + " is larger than a batch may be (1 MiB)");
    return kOk;
}

// A read of PATH below `base`: its first level, or with --subtree all of it.
int readPath(Context& ctx, const std::string& base) {
    const std::string& path = ctx.line.operands[0];
    if (int rc = checkPath(path))
        return rc;
    std::string query = ctx.line.has("--subtree") ? "?first_level_only=false" : "";
    return run(ctx, readCall(base + path + query));
}

}  // namespace

int cmdGet(Context& ctx) {
    return readPath(ctx, "TR181/Value/");
}

int cmdSet(Context& ctx) {
    const std::string& path = ctx.line.operands[0];
    JsonPtr body;
    if (int rc = checkPath(path); rc || (rc = parseObject(ctx.line.operands[1], body)))
        return rc;
    return run(ctx, writeCall("PUT", "TR181/Value/" + path, plain(body.get())));
}

int cmdAdd(Context& ctx) {
    const std::string& path = ctx.line.operands[0];
    JsonPtr body;
    if (int rc = checkPath(path))
        return rc;
    if (ctx.line.operands.size() > 1) {
        if (int rc = parseObject(ctx.line.operands[1], body))
            return rc;
    }
    return run(ctx, writeCall("POST", "TR181/Value/" + path, body ? plain(body.get()) : ""));
}

int cmdDel(Context& ctx) {
    const std::string& path = ctx.line.operands[0];
    if (int rc = checkPath(path))
        return rc;
    return run(ctx, writeCall("DELETE", "TR181/Value/" + path, ""));
}

int cmdBatch(Context& ctx) {
    std::string text;
    if (int rc = readFile(ctx.line.operands[0], text))
        return rc;
    JsonPtr body;
    if (int rc = batchBody(text, body))
        return rc;
    Answer answer;
    Call call = writeCall("PUT", "TR181/Value/MultiObjects", plain(body.get()));
    if (int rc = sendCall(ctx, call, answer))
        return rc;
    if (int rc = judge(answer))
        return rc;
    printAnswer(ctx, answer);
    return judgeElements(body.get(), answer);
}

int cmdSchema(Context& ctx) {
    return readPath(ctx, "TR181/SupportedDM/");
}

int cmdMethods(Context& ctx) {
    return run(ctx, readCall("MethodList"));
}

}  // namespace whttpctl
