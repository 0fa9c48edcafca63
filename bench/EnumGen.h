// Generators of realistic CIM-XML answers for benchmarks and load tests.
//
// The output is deterministic (same arguments, same bytes) and well formed: one element
// per line, no comments, no quotes or apostrophes in character content, so it is what a
// typical CIM object manager sends back.
#pragma once

#include <cstddef>
#include <string>

// A complete EnumerateInstances answer: XML declaration, CIM / MESSAGE ID=messageId /
// SIMPLERSP / IMETHODRESPONSE NAME="EnumerateInstances" / IRETURNVALUE holding `instances`
// VALUE.NAMEDINSTANCE elements of class "OX_StorageVolume" (namespace root/cimv2).
// Each holds an INSTANCENAME with a two-part key (KEYBINDING CreationClassName and
// DeviceID, each with a KEYVALUE VALUETYPE="string"; DeviceID is "VOL-<index>") and an
// INSTANCE with 17 properties, each with NAME and TYPE: 15 scalars (strings, uint16,
// uint64, booleans, a datetime) and two arrays (PROPERTY.ARRAY with VALUE.ARRAY of two
// VALUEs: OperationalStatus uint16, StatusDescriptions string). About 2 KB per instance:
// 10,000 instances give about 20 MB.
std::string MakeEnumerateInstancesResponse(size_t instances, int messageId = 1001);

// A GetInstance answer of about 1 KB: one INSTANCE of class "OX_StorageVolume" (DeviceID
// "VOL-0") with 9 of those properties (ElementName, CreationClassName, DeviceID, BlockSize,
// NumberOfBlocks, HealthState, Primordial, InstallDate, OperationalStatus), MESSAGE ID="1001".
std::string MakeGetInstanceResponse();
