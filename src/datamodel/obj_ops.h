// Object operations by id: get, set, add and delete of one object instance.
// The generic layer goes to the configuration service; the single-object
// layer first gives extended objects their own handlers.
#pragma once

#include <json-c/json.h>

#include <cstddef>
#include <cstdint>

int wHttpGetTR181ObjGeneric(const char* path, json_object** out);
int wHttpSetTR181ObjGeneric(const char* path, json_object* values, uint8_t apply);
// Adds an instance to the table `path` (ending in "."): on success the
// buffer holds the new instance's path.  Values, if given, are written at
// once; if that write fails the instance is deleted again and 1 is returned.
int wHttpAddTR181ObjGeneric(char* path, json_object* values, size_t size);
int wHttpDelTR181ObjGeneric(const char* path);

int wHttpGetSingleTR181Obj(const char* path, const char* className, json_object** out);
int wHttpSetSingleTR181Obj(const char* path, const char* className, json_object* values,
                           uint8_t apply);
int wHttpAddSingleTR181Obj(char* path, const char* className, json_object* values, size_t size);
int wHttpDelSingleTR181Obj(const char* path, const char* className);
