// modules/store: what of the machine's memory a new module may take. Modules are memory that nobody gives back while they
// exist: without a reserve the kernel ends the server, or somebody else, when they have taken all.
#pragma once

#include <cstddef>

namespace kestrel {

// True when the kernel still has MemAvailable (proc(5)) for a module of that size and the reserve beside it; errno ENOMEM
// when not. The reserve is 1/16 of the memory, at most 1 GiB, or the environment's KESTREL_RESERVE in MiB (0: none).
// Where the kernel does not tell, every size is taken.
bool datamod_memory_for(std::size_t size);

} // namespace kestrel
