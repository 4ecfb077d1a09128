/* layout.h - what the tables of layouts.inc are checked with, in C and in C++ alike. */
#ifndef EBRIDGE_TEST_LAYOUT_H
#define EBRIDGE_TEST_LAYOUT_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

/* The number that holds on this target. */
#if UINTPTR_MAX == UINT32_MAX
#define ON_TARGET(bits32, bits64) bits32
#else
#define ON_TARGET(bits32, bits64) bits64
#endif

#define RECORD(type, bytes32, bytes64) static_assert(sizeof(type) == ON_TARGET(bytes32, bytes64), "size of " #type);
#define LAYOUT(type, field, at32, at64) \
    static_assert(offsetof(type, field) == ON_TARGET(at32, at64), "offset of " #field " in " #type);

#endif
