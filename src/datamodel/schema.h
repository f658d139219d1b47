// The REST schema: the lookup that walks a TR-181 path through it, the check
// of a request body against an object's node, and the trimming and
// completion of answers.
#pragma once

#include <json-c/json.h>

#include <cstddef>

// The REST schema's file, below the device root.
#define WHTTPD_SCHEMA_FILE "/etc/wcfg_REST_API_schema.json"

// Reads the schema (once, at start-up); false when it cannot be read.
bool wHttpSchemaLoad(void);

// Walks `path` (at most 255 characters used) from `root`; returns the node
// the path ends in, or nullptr.  Appends the class name (instance numbers as
// "i") to `className`, writes the last name segment into `lastName`, and sets
// `*endWithIndex` to 1 when the last segment was an instance number.  The
// buffers and the flag are optional.
json_object* wHttpGetSchemaObjIn(json_object* root, const char* path, char* className,
                                 size_t classSize, char* lastName, size_t lastSize,
                                 int* endWithIndex);
// The same walk through the daemon's schema.
json_object* wHttpGetSchemaObj(const char* path, char* className, size_t classSize, char* lastName,
                               size_t lastSize, int* endWithIndex);

// Checks the first member of `body` against the object's node: 0, -14 when
// it is no parameter of the object, -13 when it is read-only.
int wHttpSchemaCheckBody(json_object* node, json_object* body);
// Deletes from `answer` every key that is no parameter of the node.
void wHttpSchemaTrimAnswer(json_object* node, json_object* answer);
// Adds every parameter of the node that `answer` lacks: integers as 0,
// everything else (booleans included) as "".
void wHttpSchemaCompleteAnswer(json_object* node, json_object* answer);

// The "_Node" text of a schema node ("" when it has none).
const char* wHttpSchemaNodeKind(json_object* node);
