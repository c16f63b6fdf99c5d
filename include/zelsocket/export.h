// Public header: the export macro of the zelSocket shared library.
#ifndef ZELSOCKET_EXPORT_H
#define ZELSOCKET_EXPORT_H

// The library is built with hidden visibility (a DLL exports nothing unless
// asked); only what carries ZELSOCKET_API is part of its ABI.  ZELSOCKET_STATIC
// is for code that links the library's objects directly, such as its own tests.
#if defined(ZELSOCKET_STATIC)
#  define ZELSOCKET_API
#elif defined(_WIN32)
#  if defined(ZELSOCKET_BUILDING)
#    define ZELSOCKET_API __declspec(dllexport)
#  else
#    define ZELSOCKET_API __declspec(dllimport)
#  endif
#else
#  define ZELSOCKET_API __attribute__((visibility("default")))
#endif

#endif  // ZELSOCKET_EXPORT_H
