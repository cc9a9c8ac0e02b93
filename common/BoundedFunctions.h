// Bounded memory and string functions. Names and argument order follow C11 Annex K; result codes
// and effects on the destination differ. Every copy, clear and format into a fixed buffer goes
// through them, except two texts that the C library bounds itself: a property's default (snprintf)
// and the time stamp (strftime). Sizes and counts are in bytes.
#pragma once

#include <stdarg.h>
#include <stddef.h>

// Result codes. The three from 150 on have 128 added: the destination was reset.
constexpr int kBoundedOk = 0;
constexpr int kBoundedInvalid = 22;        // null destination; destination not touched
constexpr int kBoundedRange = 34;          // destination size out of range; not touched
constexpr int kBoundedInvalidReset = 150;  // null source; destination cleared
constexpr int kBoundedRangeReset = 162;    // count does not fit; destination cleared (or filled)
constexpr int kBoundedOverlapReset = 182;  // source and destination overlap; destination cleared

// Largest destination size and count.
constexpr size_t kBoundedMax = 0x7FFFFFFF;

// Copies `count` bytes. An error that resets clears all `destMax` bytes of `dest`.
int memcpy_s(void* dest, size_t destMax, const void* src, size_t count);

// Fills `count` bytes with `c`. A count above `destMax` fills `destMax` bytes and is an error.
int memset_s(void* dest, size_t destMax, int c, size_t count);

// Copies at most `count` characters of `src` and terminates the result. A text that does not fit
// with its terminator is an error; an error that resets empties `dest`.
int strncpy_s(char* dest, size_t destMax, const char* src, size_t count);

// Formats at most `count` characters into `dest`. Returns the length, or -1 on an error and on
// truncation. After a truncation `dest` holds the first `count` characters if `destMax` is above
// `count`, and is empty otherwise; after any other error it is empty.
int vsnprintf_s(char* dest, size_t destMax, size_t count, const char* format, va_list args);

// Scans `buffer`. Each assigned %s, %c and %[ takes two arguments: the pointer and then the size of
// what it points to, as a size_t. Input that does not fit ends the scan like input that does not
// match, with the destination emptied; so does a conversion of wide text. Returns the number of
// fields assigned; -1 if `buffer` or `format` is null, if `buffer` is empty or too long, or on an
// input failure before the first field.
int sscanf_s(const char* buffer, const char* format, ...);
