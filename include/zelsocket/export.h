// Public header: the export macro of the zelSocket shared library.
#ifndef ZELSOCKET_EXPORT_H
#define ZELSOCKET_EXPORT_H

// The library is built with hidden visibility; only what carries ZELSOCKET_API
// is part of its ABI.
#if defined(_WIN32)
#  if defined(ZELSOCKET_BUILDING)
#    define ZELSOCKET_API __declspec(dllexport)
#  else
#    define ZELSOCKET_API __declspec(dllimport)
#  endif
#else
#  define ZELSOCKET_API __attribute__((visibility("default")))
#endif

#endif  // ZELSOCKET_EXPORT_H
