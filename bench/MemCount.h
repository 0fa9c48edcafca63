// Heap accounting for the benchmarks: while counting, every malloc-family call of the
// process (the library's strdup and CIMarray blocks, operator new) moves these figures.
#pragma once

namespace memcount {

void Start();  // zero the current and peak figures, then count
void Stop();
long long Peak();     // bytes, the most held at once since Start()
long long Current();  // bytes held now, net of what was freed since Start()

}  // namespace memcount
