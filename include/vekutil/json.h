/* JSON document model: a tree of JSON nodes, a parser from text, a printer
 * back to text, constructors, editors and typed getters.
 *
 * Memory: nodes, strings and printed text all come from the accounted
 * allocator. Text returned by the printers belongs to the caller, who frees
 * it with _vekFree (or vekFree).
 *
 * Nesting: documents and trees may nest at most JSON_MAX_DEPTH arrays and
 * objects deep. json_Parse returns NULL for deeper text, and the printers
 * return NULL for a deeper tree or for a reference that makes a cycle.
 * Parsing, printing and deleting do not recurse: they take a small, fixed
 * amount of stack whatever the depth (a 32 KiB thread stack is enough).
 *
 * No function takes a lock: a tree is used by one thread at a time. */
#ifndef VEKUTIL_JSON_H
#define VEKUTIL_JSON_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* Type tags, in the low byte of JSON.type. */
#define JSON_FALSE 0
#define JSON_TRUE 1
#define JSON_NULL 2
#define JSON_NUMBER 3
#define JSON_STRING 4
#define JSON_ARRAY 5
#define JSON_OBJECT 6
/* Or-ed into JSON.type: the node shares child and valuestring of another
 * node and does not own them. */
#define JSON_IS_REFERENCE 256

/* The deepest nesting of arrays and objects that parser and printers accept. */
#define JSON_MAX_DEPTH 1000

/* One node of the tree. The field order is part of the interface. */
typedef struct _JSON {
  struct _JSON* next;  /* next sibling; NULL at the end */
  struct _JSON* prev;  /* previous sibling; NULL for the first child */
  struct _JSON* child; /* first child of an array or object */
  int type;            /* type tag, plus JSON_IS_REFERENCE */
  char* valuestring;   /* text of a string node */
  int valueint;        /* number as int; 1 for true */
  unsigned int valueuint;  /* number as unsigned 32-bit (low 32 bits) */
  double valuedouble;      /* number as double */
  char* string;            /* the key, when the node is an object member */
  long long valuelonglong; /* number as 64-bit integer */
} JSON;

/* Callback of json_ObjectForeach; its result is ignored. */
typedef int (*json_fefunc)(JSON* item, void* custom);

/* Parsing and printing. */
VEK_API JSON* json_Parse(const char* value);
/* As json_Parse; on failure *error_at (when error_at is not NULL) is set to
 * the position in value where parsing stopped, on success to NULL. */
VEK_API JSON* json_ParseEx(const char* text, const char** error_at);
VEK_API char* json_PrintUnformatted(JSON* item);
VEK_API char* json_Print(JSON* item); /* the same compact text */

/* The printer's pieces; fmt non-zero selects the formatted layout, depth is
 * the nesting level used for its tab indentation. */
VEK_API char* print_value(JSON* item, int depth, int fmt);
VEK_API char* print_object(JSON* item, int depth, int fmt);
VEK_API char* print_array(JSON* item, int depth, int fmt);
VEK_API char* print_number(JSON* item);
VEK_API char* print_string(JSON* item);
VEK_API char* print_string_ptr(const char* str);

/* The parser's pieces: each fills item from text and returns the position
 * after what it consumed, or NULL on failure. */
VEK_API const char* parse_value(JSON* item, const char* value);
VEK_API const char* parse_object(JSON* item, const char* value);
VEK_API const char* parse_array(JSON* item, const char* value);
VEK_API const char* parse_string(JSON* item, const char* str);
VEK_API const char* parse_number(JSON* item, const char* num);
/* Steps over bytes 1 to 32. */
VEK_API const char* skip(const char* in);

VEK_API char* json_strdup(const char* str);
VEK_API int json_strcasecmp(const char* s1, const char* s2);

/* Constructors; each returns NULL when allocation fails. */
VEK_API JSON* json_CreateNull(void);
VEK_API JSON* json_CreateTrue(void);
VEK_API JSON* json_CreateFalse(void);
VEK_API JSON* json_CreateArray(void);
VEK_API JSON* json_CreateObject(void);
VEK_API JSON* json_CreateNumber(double num);
VEK_API JSON* json_CreateInteger(long long num);
VEK_API JSON* json_CreateString(const char* string);

VEK_API JSON* json_CreateIntArray(const int* numbers, int count);
VEK_API JSON* json_CreateLongLongArray(const long long* numbers, int count);
VEK_API JSON* json_CreateDoubleArray(const double* numbers, int count);
VEK_API JSON* json_CreateFloatArray(const float* numbers, int count);
VEK_API JSON* json_CreateBoolArray(const char* values, int count);
VEK_API JSON* json_CreateStringArray(const char** strings, int count);

/* Building and editing; an index of 0 or below selects the first child. */
VEK_API void json_AddItemToArray(JSON* array, JSON* item);
VEK_API void json_AddItemToObject(JSON* object, const char* string, JSON* item);
VEK_API void json_AddItemReferenceToArray(JSON* array, JSON* item);
VEK_API void json_AddItemReferenceToObject(JSON* object, const char* string, JSON* item);
VEK_API JSON* json_DetachItemFromArray(JSON* array, int which);
VEK_API void json_DeleteItemFromArray(JSON* array, int which);
VEK_API void json_ReplaceItemInArray(JSON* array, int which, JSON* newitem);
VEK_API JSON* json_DetachItemFromObject(JSON* object, const char* string);
VEK_API void json_DeleteItemFromObject(JSON* object, const char* string);
VEK_API void json_ReplaceItemInObject(JSON* object, const char* string, JSON* newitem);
/* Deletes c and every sibling after it, each with its subtree. */
VEK_API void json_Delete(JSON* c);

/* Access. Object keys compare without regard to case. */
VEK_API int json_GetArraySize(JSON* array);
VEK_API JSON* json_GetArrayItem(JSON* array, int item);
VEK_API JSON* json_GetObjectItem(JSON* object, const char* string);
VEK_API int json_ObjectForeach(JSON* object, json_fefunc callback, void* custom);

/* Typed getters: a pointer to the value inside the node, or NULL when the
 * child is missing or of another type (no default values). The bool getters
 * store 1 or 0 in the node's valueint and return a pointer to it. */
VEK_API char* json_GetArrayItemAsString(JSON* object, int item);
VEK_API int* json_GetArrayItemAsInt(JSON* object, int item);
VEK_API unsigned int* json_GetArrayItemAsUInt(JSON* object, int item);
VEK_API long long* json_GetArrayItemAsLongLong(JSON* object, int item);
VEK_API double* json_GetArrayItemAsDouble(JSON* object, int item);
VEK_API int* json_GetArrayItemAsBool(JSON* object, int item);
VEK_API char* json_GetObjectItemAsString(JSON* object, const char* string);
VEK_API int* json_GetObjectItemAsInt(JSON* object, const char* string);
VEK_API unsigned int* json_GetObjectItemAsUInt(JSON* object, const char* string);
VEK_API long long* json_GetObjectItemAsLongLong(JSON* object, const char* string);
VEK_API double* json_GetObjectItemAsDouble(JSON* object, const char* string);
VEK_API int* json_GetObjectItemAsBool(JSON* object, const char* string);

VEK_END_DECLS

#endif
