#ifndef VX_EXPORT_H
#define VX_EXPORT_H

// Marks what the shared library exports.
#define VX_EXPORT __attribute__((visibility("default")))

#endif
