/* Marks what the shared library exports. The library is compiled with hidden visibility, so
 * only the C API and the public C++ classes and functions carry this mark; everything else
 * stays internal to libzonaris. Valid C and C++. */
#ifndef ZONARIS_EXPORT_H
#define ZONARIS_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define ZONARIS_API __attribute__((visibility("default")))
#else
#define ZONARIS_API
#endif

#endif /* ZONARIS_EXPORT_H */
