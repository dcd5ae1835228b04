// A function of a dynamic library that need not be installed, looked up by name at run time.
// Windows only; implemented beside the platform, which is the one place that includes system
// headers.
#pragma once

namespace tavo {

// Any function; to be cast to its true type before it is called.
using AnyFunction = void (*)();

// Null when the machine has no such library, or the library no such function. A library once found
// stays loaded until the process ends: to unload it while this library is itself being unloaded is
// not allowed.
AnyFunction FindLibraryFunction(const char* library, const char* function);

}  // namespace tavo
