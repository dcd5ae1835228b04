// The mark of a function that takes a format and its arguments as printf does, for the compiler to check.
#pragma once

#if defined(__MINGW32__)  // where plain printf means Microsoft's, which knows fewer formats
#define TAVO_PRINTF_LIKE(formatIndex, firstArgument) \
  __attribute__((format(gnu_printf, formatIndex, firstArgument)))
#elif defined(__GNUC__)
#define TAVO_PRINTF_LIKE(formatIndex, firstArgument) \
  __attribute__((format(printf, formatIndex, firstArgument)))
#else
#define TAVO_PRINTF_LIKE(formatIndex, firstArgument)
#endif
