// oxcim's output: MOF-like text for people, JSON for scripts.
#pragma once

#include <nlohmann/json.hpp>

#include <ostream>
#include <string>

#include "OxcimModel.h"

namespace oxcli {

// The server's order of properties and keys is kept.
using Json = nlohmann::ordered_json;

// [//host/][namespace:]Class.Key="value",Number=5 (read back by ParsePath).
std::string PathText(const InstancePath& path);
// A value as MOF writes it: "text" with escapes, numbers bare, {a, b} for arrays, NULL.
std::string ValueText(const CimValue& value);
void WriteInstance(std::ostream& out, const Instance& instance);
void WriteClass(std::ostream& out, const ClassDef& cls);

// A text of the CIM type as a JSON value: numbers for the numeric types, true/false for
// boolean, the text itself when it does not read as its type.
Json Typed(const std::string& type, const std::string& text);
Json PathJson(const InstancePath& path);
Json ValueJson(const CimValue& value);  // the value only: null, a scalar, an array, a path
Json PropertyJson(const Property& property);  // {"type", ["array",] "value"}
Json InstanceJson(const Instance& instance);
Json ClassJson(const ClassDef& cls);

}  // namespace oxcli
