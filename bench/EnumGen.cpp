#include "EnumGen.h"

#include <cstdio>

namespace {

const char* const kClass = "OX_StorageVolume";

void Property(std::string& out, const char* name, const char* type, const std::string& value) {
  out += "<PROPERTY NAME=\"";
  out += name;
  out += "\" TYPE=\"";
  out += type;
  out += "\">\n<VALUE>";
  out += value;
  out += "</VALUE>\n</PROPERTY>\n";
}

void ArrayProperty(std::string& out, const char* name, const char* type,
                   const std::string* values, size_t count) {
  out += "<PROPERTY.ARRAY NAME=\"";
  out += name;
  out += "\" TYPE=\"";
  out += type;
  out += "\">\n<VALUE.ARRAY>\n";
  for (size_t i = 0; i < count; ++i) {
    out += "<VALUE>";
    out += values[i];
    out += "</VALUE>\n";
  }
  out += "</VALUE.ARRAY>\n</PROPERTY.ARRAY>\n";
}

std::string DeviceId(size_t index) { return "VOL-" + std::to_string(index); }

// full: the 17 properties of an enumerated instance; otherwise the 9 of a GetInstance answer.
void Instance(std::string& out, size_t index, bool full) {
  char buf[64];
  const std::string id = DeviceId(index);
  out += "<INSTANCE CLASSNAME=\"OX_StorageVolume\">\n";
  if (full) Property(out, "Caption", "string", "Storage volume " + id);
  if (full) Property(out, "Description",
           "string", "Logical volume exported by controller " + std::to_string(index % 8) +
                         " of the enclosure, RAID level 5 with hot spare");
  Property(out, "ElementName", "string", "LUN_" + std::to_string(index));
  Property(out, "CreationClassName", "string", kClass);
  Property(out, "DeviceID", "string", id);
  if (full) Property(out, "SystemName", "string", "array-0042.example.net");
  Property(out, "BlockSize", "uint64", "512");
  Property(out, "NumberOfBlocks", "uint64", std::to_string(2097152ull * (index % 97 + 1)));
  if (full) Property(out, "ConsumableBlocks", "uint64", std::to_string(2097152ull * (index % 97 + 1) - 2048));
  Property(out, "HealthState", "uint16", index % 50 == 0 ? "10" : "5");
  if (full) Property(out, "EnabledState", "uint16", "2");
  Property(out, "Primordial", "boolean", "false");
  if (full) Property(out, "IsBasedOnUnderlyingRedundancy", "boolean", index % 3 ? "true" : "false");
  std::snprintf(buf, sizeof buf, "2026%02zu%02zu%02zu%02zu%02zu.%06zu+060", index % 12 + 1,
                index % 28 + 1, index % 24, index % 60, (index * 7) % 60, index % 1000000);
  Property(out, "InstallDate", "datetime", buf);
  if (full) Property(out, "PackageRedundancy", "uint16", std::to_string(index % 4));
  const std::string status[2] = {"2", index % 50 == 0 ? "3" : "32768"};
  ArrayProperty(out, "OperationalStatus", "uint16", status, 2);
  const std::string texts[2] = {"OK", index % 50 == 0 ? "Degraded" : "Online"};
  if (full) ArrayProperty(out, "StatusDescriptions", "string", texts, 2);
  out += "</INSTANCE>\n";
}

void Head(std::string& out, int messageId, const char* method) {
  out += "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n";
  out += "<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\">\n";
  out += "<MESSAGE ID=\"" + std::to_string(messageId) + "\" PROTOCOLVERSION=\"1.0\">\n";
  out += "<SIMPLERSP>\n<IMETHODRESPONSE NAME=\"";
  out += method;
  out += "\">\n<IRETURNVALUE>\n";
}

void Tail(std::string& out) {
  out += "</IRETURNVALUE>\n</IMETHODRESPONSE>\n</SIMPLERSP>\n</MESSAGE>\n</CIM>\n";
}

}  // namespace

std::string MakeEnumerateInstancesResponse(size_t instances, int messageId) {
  std::string out;
  out.reserve(instances * 2200 + 512);
  Head(out, messageId, "EnumerateInstances");
  for (size_t i = 0; i < instances; ++i) {
    const std::string id = DeviceId(i);
    out += "<VALUE.NAMEDINSTANCE>\n<INSTANCENAME CLASSNAME=\"OX_StorageVolume\">\n";
    out += "<KEYBINDING NAME=\"CreationClassName\">\n<KEYVALUE VALUETYPE=\"string\">";
    out += kClass;
    out += "</KEYVALUE>\n</KEYBINDING>\n";
    out += "<KEYBINDING NAME=\"DeviceID\">\n<KEYVALUE VALUETYPE=\"string\">";
    out += id;
    out += "</KEYVALUE>\n</KEYBINDING>\n</INSTANCENAME>\n";
    Instance(out, i, true);
    out += "</VALUE.NAMEDINSTANCE>\n";
  }
  Tail(out);
  return out;
}

std::string MakeGetInstanceResponse() {
  std::string out;
  Head(out, 1001, "GetInstance");
  Instance(out, 0, false);
  Tail(out);
  return out;
}
