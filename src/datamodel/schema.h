// The REST schema: the lookup that walks a TR-181 path through it, the check
// of a request body against an object's node, and the trimming and
// completion of answers.
#pragma once

#include <json-c/json.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// The REST schema's file, below the device root.
#define WHTTPD_SCHEMA_FILE "/etc/wcfg_REST_API_schema.json"

struct WSchema;

// One member of the schema document (an object, or a plain value such as
// the text of "_Node"), as a fixed record: the document is read once and a
// few hundred hash tables of json-c would keep a third of the daemon's
// private memory.  Texts are offsets into the schema's pool.
struct WSchemaNode {
    const WSchema* owner = nullptr;
    uint32_t name = 0;                        // the member's key
    uint32_t kind = 0;                        // the "_Node" text ("" when none)
    uint32_t type = 0;                        // the "_Type" text ("" when none)
    uint32_t attribute = 0;                   // the "_Attribute" value's text, when hasAttribute
    uint32_t json = 0;                        // a plain value: its JSON text
    uint32_t firstChild = 0, childCount = 0;  // members, in the document's order
    uint32_t firstSorted = 0;                 // the same members by name
    int64_t maxLength = 0;                    // "_MaxLength", when hasMaxLength
    int32_t tableBound = 0;  // "_MaxLength" as a 32-bit integer (null: 0), when hasTableBound
    bool isObject = false, hasAttribute = false, hasMaxLength = false, hasTableBound = false;
};

struct WSchema {
    std::vector<WSchemaNode> nodes;  // nodes[0] is the document
    std::vector<uint32_t> sorted;    // each object's members, ordered by key
    std::string pool;                // NUL-terminated texts
};

// Reads the schema (once, at start-up); false when it cannot be read.
bool wHttpSchemaLoad(void);
// The compact form of a parsed schema document (any JSON value).
std::unique_ptr<WSchema> wHttpSchemaBuild(json_object* doc);

// Walks `path` (at most 255 characters used) from the schema's document;
// returns the node the path ends in, or nullptr.  Appends the class name
// (instance numbers as "i") to `className`, writes the last name segment
// into `lastName`, and sets `*endWithIndex` to 1 when the last segment was an
// instance number.  The buffers and the flag are optional.
const WSchemaNode* wHttpGetSchemaObjIn(const WSchema* schema, const char* path, char* className,
                                       size_t classSize, char* lastName, size_t lastSize,
                                       int* endWithIndex);
// The same walk through the daemon's schema.
const WSchemaNode* wHttpGetSchemaObj(const char* path, char* className, size_t classSize,
                                     char* lastName, size_t lastSize, int* endWithIndex);

// Checks the first member of `body` against the object's node: 0, -14 when
// it is no parameter of the object, -13 when it is read-only.
int wHttpSchemaCheckBody(const WSchemaNode* node, json_object* body);
// Deletes from `answer` every key that is no parameter of the node.
void wHttpSchemaTrimAnswer(const WSchemaNode* node, json_object* answer);
// Adds every parameter of the node that `answer` lacks: integers as 0,
// everything else (booleans included) as "".
void wHttpSchemaCompleteAnswer(const WSchemaNode* node, json_object* answer);

// The "_Node" text of a schema node ("" when it has none).
const char* wHttpSchemaNodeKind(const WSchemaNode* node);
// The node's key in its parent.
const char* wHttpSchemaNodeName(const WSchemaNode* node);
// The node's members in the document's order (none for a plain value).
size_t wHttpSchemaChildCount(const WSchemaNode* node);
const WSchemaNode* wHttpSchemaChildAt(const WSchemaNode* node, size_t i);
// A table whose instances may be added and deleted.
bool wHttpSchemaCreatable(const WSchemaNode* node);
// The table's "_MaxLength" as a 32-bit integer, or `fallback` without one.
int wHttpSchemaTableBound(const WSchemaNode* node, int fallback);
// The node as the document has it (a new object for the caller).
json_object* wHttpSchemaToJson(const WSchemaNode* node);
