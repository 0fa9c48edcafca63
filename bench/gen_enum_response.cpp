// Writes an EnumerateInstances answer to a file: gen_enum_response FILE [INSTANCES [MESSAGEID]]
#include "EnumGen.h"

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
  if (argc < 2 || argc > 4) {
    std::fprintf(stderr, "usage: %s FILE [INSTANCES (10000)] [MESSAGEID (1001)]\n", argv[0]);
    return 2;
  }
  const size_t instances = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 10000;
  const int id = argc > 3 ? std::atoi(argv[3]) : 1001;
  const std::string text = MakeEnumerateInstancesResponse(instances, id);
  FILE* f = std::fopen(argv[1], "wb");
  if (f == nullptr) {
    std::perror(argv[1]);
    return 1;
  }
  const bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
  if (std::fclose(f) != 0 || !ok) {
    std::perror(argv[1]);
    return 1;
  }
  std::printf("%s: %zu instances, %zu bytes\n", argv[1], instances, text.size());
  return 0;
}
