// Property-tree operations for the library's own use. Not installed.
#pragma once

// Appends separator and value to the value of key (ignoring case), or
// inserts key with value when it is absent. The value's storage grows by
// doubling, so a value built from n pieces costs time linear in its length.
// Results as ptree_insert.
int ptree_append_value(void* handle, const char* key, const char* value, const char* separator);
