// The configuration service's data-model definition (data/datamodel.def),
// parsed into objects and parameters.  Shared by the service, the schema
// generator, wcfgctl and the build-time generator of the daemon's name table.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace wdm {

enum class Type { Bool, Int, Uint, Ulong, String, DateTime };

struct Param {
    std::string name;
    Type type = Type::String;
    std::string schemaType;  // "boolean", "int32", "uint32", "uint64", "string", "dateTime"
    bool hasMin = false, hasMax = false;
    int64_t min = 0, max = 0;
    size_t maxLen = 0;  // 0: unlimited
    std::vector<std::string> enums;
    bool writable = false;
    bool hidden = false;      // kept out of the REST schema
    bool writeOnly = false;   // in the REST schema to be written, never read (a pass phrase)
    bool secret = false;      // changed only by the account editor
    bool supervisor = false;  // changed only by the supervisor's group
    bool once = false;        // a session may set it while empty, not change it
    bool device = false;      // read-only for clients, written by the device itself
    bool hasDefault = false;
    std::string def;  // default as text
};

// Who may write an object for a REST session (see data/datamodel.def).
enum class Guard { None, Group, Supervisor };

struct Object {
    std::string rdm;        // RDM_OID_ name; empty for a virtual object
    int32_t id = -1;        // object id; -1 for a virtual object
    std::string path;       // "Device.WiFi.AccessPoint.{i}.WPS."
    std::string className;  // "Device.WiFi.AccessPoint.i.WPS."
    std::string name;       // last segment: "WPS"
    bool table = false;
    bool create = false;
    bool isVirtual = false;
    Guard guard = Guard::None;
    int maxInst = 0;  // tables: highest instance number allowed
    int depth = 0;    // instance numbers needed to name one instance
    int parent = -1;  // index into Model::objects
    std::vector<int> children;
    std::vector<Param> params;

    const Param* param(const std::string& n) const;
};

struct Model {
    std::vector<std::pair<std::string, int32_t>> ids;  // every object, definition order
    std::vector<Object> objects;                       // objects with a path
    std::map<std::string, int> byPath;                 // "{i}" path -> index
    std::map<int32_t, int> byIdIndex;                  // id -> index

    const Object* byId(int32_t id) const;
    const Object* byPathForm(const std::string& path) const;
    int32_t idOf(const std::string& rdm) const;  // -1 when unknown
    // The object a TR-181 path names ("Device.NAT.PortMapping.3.", "IP.Interface.2";
    // "i" stands for any instance number), its instance numbers written to
    // `idx` and counted in `level` as they are read; nullptr when the path
    // names no object of the definition, or a virtual one.
    const Object* resolve(const char* path, uint8_t idx[6], int* level) const;
};

// Parses a definition text; on failure returns false and describes the first
// error in `err`.
bool parse(const std::string& text, Model& out, std::string& err);

// The definition compiled into the program, parsed once.
const Model& model();

}  // namespace wdm
