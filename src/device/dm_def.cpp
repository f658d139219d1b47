// Parser of the data-model definition into objects and parameters.
#include "device/dm_def.h"

#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <cctype>
#include <cstring>
#include <sstream>
#include <stdexcept>

extern const char kDataModelDefinition[];

namespace wdm {

const Param* Object::param(const std::string& n) const {
    for (const Param& p : params)
        if (p.name == n)
            return &p;
    return nullptr;
}

const Object* Model::byId(int32_t id) const {
    auto it = byIdIndex.find(id);
    return it == byIdIndex.end() ? nullptr : &objects[it->second];
}

const Object* Model::byPathForm(const std::string& path) const {
    auto it = byPath.find(path);
    return it == byPath.end() ? nullptr : &objects[it->second];
}

const Object* Model::resolve(const char* path, uint8_t idx[6], int* level) const {
    std::vector<std::string> segs;
    const char* p = path;
    while (*p) {
        const char* dot = strchr(p, '.');
        size_t len = dot ? static_cast<size_t>(dot - p) : strlen(p);
        if (len)
            segs.emplace_back(p, len);
        if (!dot)
            break;
        p = dot + 1;
    }
    if (segs.empty())
        return nullptr;
    if (segs[0] != "Device")
        segs.insert(segs.begin(), "Device");
    const Object* cur = byPathForm("Device.");
    if (!cur)
        return nullptr;
    bool numbered = true;  // whether the current table has its instance number
    *level = 0;
    for (size_t i = 1; i < segs.size(); ++i) {
        const std::string& s = segs[i];
        bool isNumber = !s.empty() && std::all_of(s.begin(), s.end(), ::isdigit);
        if (isNumber || s == "i") {
            if (!cur->table || numbered || *level >= 6)
                return nullptr;
            long n = isNumber ? (s.size() > 3 ? 256 : std::stol(s)) : 0;
            if (n > 255)
                return nullptr;
            idx[(*level)++] = static_cast<uint8_t>(n);
            numbered = true;
            continue;
        }
        if (!numbered)
            return nullptr;
        const Object* next = byPathForm(cur->path + s + ".");
        if (!next)
            next = byPathForm(cur->path + s + ".{i}.");
        if (!next)
            return nullptr;
        cur = next;
        numbered = !cur->table;
    }
    return cur->isVirtual ? nullptr : cur;
}

int32_t Model::idOf(const std::string& rdm) const {
    for (const auto& [name, id] : ids)
        if (name == rdm)
            return id;
    return -1;
}

namespace {

// Splits a line into tokens; double-quoted tokens may hold blanks and the
// escapes \" and \\.  `quoted` tells which tokens were quoted.
std::vector<std::string> tokenize(const std::string& line, std::vector<bool>& quoted) {
    std::vector<std::string> out;
    quoted.clear();
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t'))
            ++i;
        if (i >= line.size() || line[i] == '#')
            break;
        std::string tok;
        if (line[i] == '"') {
            ++i;
            while (i < line.size() && line[i] != '"') {
                if (line[i] == '\\' && i + 1 < line.size())
                    ++i;
                tok += line[i++];
            }
            if (i >= line.size())
                throw std::runtime_error("unterminated string");
            ++i;
            quoted.push_back(true);
        } else {
            while (i < line.size() && line[i] != ' ' && line[i] != '\t')
                tok += line[i++];
            quoted.push_back(false);
        }
        out.push_back(tok);
    }
    return out;
}

int64_t toInt(const std::string& s) {
    char* end = nullptr;
    long long v = strtoll(s.c_str(), &end, 10);
    if (s.empty() || *end)
        throw std::runtime_error("bad number '" + s + "'");
    return v;
}

void parseRange(const std::string& range, Param& p) {
    // "[lo:hi]", either bound may be empty
    size_t colon = range.find(':');
    if (range.size() < 3 || range.front() != '[' || range.back() != ']' ||
        colon == std::string::npos)
        throw std::runtime_error("bad range " + range);
    std::string lo = range.substr(1, colon - 1),
                hi = range.substr(colon + 1, range.size() - colon - 2);
    if (!lo.empty())
        p.hasMin = true, p.min = toInt(lo);
    if (!hi.empty())
        p.hasMax = true, p.max = toInt(hi);
}

void parseType(const std::string& t, Param& p) {
    auto arg = [&](const std::string& prefix) { return t.substr(prefix.size()); };
    if (t == "bool") {
        p.type = Type::Bool, p.schemaType = "boolean";
    } else if (t.rfind("int", 0) == 0) {
        p.type = Type::Int, p.schemaType = "int32";
        p.hasMin = p.hasMax = true, p.min = INT32_MIN, p.max = INT32_MAX;
        if (t.size() > 3)
            parseRange(arg("int"), p);
    } else if (t.rfind("uint", 0) == 0) {
        p.type = Type::Uint, p.schemaType = "uint32";
        p.hasMin = p.hasMax = true, p.min = 0, p.max = UINT32_MAX;
        if (t.size() > 4)
            parseRange(arg("uint"), p);
    } else if (t == "ulong") {
        p.type = Type::Ulong, p.schemaType = "uint64";
        p.hasMin = true, p.min = 0;
    } else if (t == "datetime") {
        p.type = Type::DateTime, p.schemaType = "dateTime";
    } else if (t.rfind("string", 0) == 0 || t.rfind("list", 0) == 0) {
        p.type = Type::String, p.schemaType = "string";
        size_t open = t.find('(');
        if (open != std::string::npos) {
            std::string n = t.substr(open + 1, t.size() - open - 2);
            size_t len = static_cast<size_t>(toInt(n));
            // a list's size counts items; give each item room for a path
            p.maxLen = t[0] == 'l' ? len * 256 : len;
        }
    } else if (t.rfind("enum(", 0) == 0 && t.back() == ')') {
        p.type = Type::String, p.schemaType = "string";
        std::string body = t.substr(5, t.size() - 6);
        std::stringstream ss(body);
        std::string v;
        while (std::getline(ss, v, '|'))
            p.enums.push_back(v);
    } else {
        throw std::runtime_error("unknown type " + t);
    }
}

// "Device.A.{i}.B." -> "Device.A.i.B."
std::string classOf(const std::string& path) {
    std::string out;
    size_t pos = 0;
    while (pos < path.size()) {
        size_t dot = path.find('.', pos);
        std::string seg = path.substr(pos, dot - pos);
        out += (seg == "{i}" ? "i" : seg) + ".";
        pos = dot + 1;
    }
    return out;
}

void addObject(Model& m, Object o) {
    if (o.path.size() < 2 || o.path.back() != '.')
        throw std::runtime_error("bad path " + o.path);
    std::string body = o.path.substr(0, o.path.size() - 1);
    o.table = body.size() > 4 && body.compare(body.size() - 4, 4, ".{i}") == 0;
    std::string own = o.table ? body.substr(0, body.size() - 4) : body;
    size_t lastDot = own.rfind('.');
    o.name = lastDot == std::string::npos ? own : own.substr(lastDot + 1);
    std::string parentPath = lastDot == std::string::npos ? "" : own.substr(0, lastDot + 1);
    for (size_t p = o.path.find("{i}"); p != std::string::npos; p = o.path.find("{i}", p + 3))
        ++o.depth;
    o.className = classOf(o.path);
    if (o.table && o.maxInst <= 0)
        o.maxInst = 255;
    if (!parentPath.empty()) {
        auto it = m.byPath.find(parentPath);
        if (it == m.byPath.end())
            throw std::runtime_error("no parent for " + o.path);
        o.parent = it->second;
    }
    if (m.byPath.count(o.path))
        throw std::runtime_error("duplicate path " + o.path);
    int index = static_cast<int>(m.objects.size());
    m.byPath[o.path] = index;
    if (o.id >= 0)
        m.byIdIndex[o.id] = index;
    if (o.parent >= 0)
        m.objects[o.parent].children.push_back(index);
    m.objects.push_back(std::move(o));
}

// One line of the "ids" section: NAME ID.
void parseIdLine(const std::vector<std::string>& t, Model& m) {
    if (t.size() != 2)
        throw std::runtime_error("expected NAME ID");
    int32_t id = static_cast<int32_t>(toInt(t[1]));
    for (auto& [n, i] : m.ids)
        if (n == t[0] || i == id)
            throw std::runtime_error("duplicate id " + t[0]);
    m.ids.emplace_back(t[0], id);
}

// An object's head line: "object RDM PATH [options]" or "virtual PATH [options]".
Object parseObjectLine(const std::vector<std::string>& t, const Model& m) {
    Object cur;
    size_t opt;
    if (t[0] == "object" && t.size() >= 3) {
        cur.rdm = t[1];
        cur.id = m.idOf(t[1]);
        if (cur.id < 0)
            throw std::runtime_error("object without id " + t[1]);
        cur.path = t[2];
        opt = 3;
    } else if (t[0] == "virtual" && t.size() >= 2) {
        cur.isVirtual = true;
        cur.path = t[1];
        opt = 2;
    } else {
        throw std::runtime_error("expected object or virtual");
    }
    for (; opt < t.size(); ++opt) {
        if (t[opt] == "create")
            cur.create = true;
        else if (t[opt] == "guard=group")
            cur.guard = Guard::Group;
        else if (t[opt] == "guard=supervisor")
            cur.guard = Guard::Supervisor;
        else if (t[opt].rfind("max=", 0) == 0)
            cur.maxInst = static_cast<int>(toInt(t[opt].substr(4)));
        else
            throw std::runtime_error("unknown option " + t[opt]);
    }
    return cur;
}

// A parameter line: NAME TYPE ACCESS [flags] [DEFAULT].  A flag word in
// quotes is a default value.
Param parseParamLine(const std::vector<std::string>& t, const std::vector<bool>& quoted) {
    static const struct {
        const char* word;
        bool Param::*flag;
    } kFlags[] = {{"hidden", &Param::hidden}, {"writeonly", &Param::writeOnly},
                  {"secret", &Param::secret}, {"supervisor", &Param::supervisor},
                  {"once", &Param::once},     {"device", &Param::device}};
    if (t.size() < 3)
        throw std::runtime_error("expected NAME TYPE ACCESS [DEFAULT]");
    Param p;
    p.name = t[0];
    parseType(t[1], p);
    if (t[2] != "R" && t[2] != "W")
        throw std::runtime_error("access must be R or W");
    p.writable = t[2] == "W";
    for (size_t k = 3; k < t.size(); ++k) {
        bool isFlag = false;
        for (const auto& f : kFlags)
            if (!quoted[k] && t[k] == f.word)
                p.*(f.flag) = isFlag = true;
        if (isFlag)
            continue;
        if (p.hasDefault)
            throw std::runtime_error("unexpected " + t[k]);
        p.hasDefault = true;
        p.def = t[k];
    }
    return p;
}

}  // namespace

bool parse(const std::string& text, Model& m, std::string& err) {
    std::istringstream in(text);
    std::string line;
    int lineNo = 0;
    enum { None, Ids, Objects } section = None;
    Object cur;
    bool haveCur = false;
    try {
        while (std::getline(in, line)) {
            ++lineNo;
            std::vector<bool> quoted;
            std::vector<std::string> t = tokenize(line, quoted);
            if (t.empty())
                continue;
            bool indented = line[0] == ' ' || line[0] == '\t';
            if (!indented && (t[0] == "ids" || t[0] == "end" || t[0] == "objects")) {
                section = t[0] == "ids" ? Ids : t[0] == "objects" ? Objects : None;
                continue;
            }
            if (section == Ids) {
                parseIdLine(t, m);
            } else if (section != Objects) {
                throw std::runtime_error("line outside a section");
            } else if (!indented) {
                if (haveCur)
                    addObject(m, std::move(cur));
                cur = parseObjectLine(t, m);
                haveCur = true;
            } else {
                if (!haveCur)
                    throw std::runtime_error("parameter outside an object");
                Param p = parseParamLine(t, quoted);
                if (cur.param(p.name))
                    throw std::runtime_error("duplicate parameter " + p.name);
                cur.params.push_back(std::move(p));
            }
        }
        if (haveCur)
            addObject(m, std::move(cur));
    } catch (const std::exception& e) {
        err = "line " + std::to_string(lineNo) + ": " + e.what();
        return false;
    }
    return true;
}

const Model& model() {
    static const Model m = [] {
        Model out;
        std::string err;
        if (!parse(kDataModelDefinition, out, err)) {
            fprintf(stderr, "data-model definition: %s\n", err.c_str());
            abort();
        }
        return out;
    }();
    return m;
}

}  // namespace wdm
