#pragma once

#include <cstdint>

/// The C side of the plug-in interface's variables.

/// Names one embedding of a plug-in in a page; 0 names none.
using PP_Instance = std::int32_t;

enum PP_VarType : std::int32_t {
  PP_VARTYPE_UNDEFINED = 0,
  PP_VARTYPE_NULL = 1,
  PP_VARTYPE_BOOL = 2,
  PP_VARTYPE_INT32 = 3,
  PP_VARTYPE_DOUBLE = 4,
  PP_VARTYPE_STRING = 5,
  PP_VARTYPE_OBJECT = 6,
  PP_VARTYPE_ARRAY = 7,
  PP_VARTYPE_DICTIONARY = 8,
};

/// A reference-counted string, array or dictionary; opaque.
struct PP_VarNode;

/// A variable, passed by value. One of type string, array or dictionary represents one reference to its node; each
/// function documents who owns that reference.
struct PP_Var {
  PP_VarType type;
  std::int32_t padding;
  union {
    bool as_bool;
    std::int32_t as_int;
    double as_double;
    PP_VarNode* as_node;
  } value;
};
static_assert(sizeof(PP_Var) == 16);
