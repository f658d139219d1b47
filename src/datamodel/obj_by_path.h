// Object operations by path, checked against the REST schema: the get that
// assembles an object, a table or a subtree, and the set, add and delete.
#pragma once

#include <json-c/json.h>

#include <cstddef>
#include <cstdint>

// `top` 1: `*answer` receives the new answer.  `top` 0 (recursion):
// `*answer` is the parent's answer, into which the result is added.
int wHttpGetTR181ObjByPath(const char* path, int top, int firstLevelOnly, json_object** answer);
int wHttpSetTR181ObjByPath(const char* path, json_object* values, uint8_t apply);
int wHttpAddTR181ObjByPath(char* path, json_object* values, size_t size);
int wHttpDelTR181ObjByPath(const char* path);
