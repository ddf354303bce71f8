#ifndef SOFTMATTE_EXPORT_H_
#define SOFTMATTE_EXPORT_H_

#define SOFTMATTE_VERSION_MAJOR 0
#define SOFTMATTE_VERSION_MINOR 1
#define SOFTMATTE_VERSION_PATCH 0

// Marks the public API. The library is built with hidden visibility, so only
// names carrying this macro leave the shared object.
#if defined(_WIN32)
#define SOFTMATTE_API
#else
#define SOFTMATTE_API __attribute__((visibility("default")))
#endif

#endif  // SOFTMATTE_EXPORT_H_
