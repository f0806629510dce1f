#ifndef KVIMAGE_EXPORT_H
#define KVIMAGE_EXPORT_H

// The library is compiled with hidden default visibility: only declarations
// marked KVIMAGE_EXPORT are visible outside libkvimage.so.
#define KVIMAGE_EXPORT __attribute__((visibility("default")))

#endif
