// Looks up a function of a dynamic library at run time; the library need not be installed. Windows
// only; implemented beside the platform, the one place that includes system headers.
#pragma once

namespace tavo {

// Any function; cast it to its true type before calling it.
using AnyFunction = void (*)();

// Null when the machine has no such library, or the library no such function. A library once found
// stays loaded until the process ends, because it must not be unloaded while this library is itself
// being unloaded.
AnyFunction FindLibraryFunction(const char* library, const char* function);

}  // namespace tavo
