// Text helpers: conversion between wide (UTF-16) and narrow (UTF-8) text,
// trimming, an owner of new[] buffers and the millisecond difference of two
// file times.
#ifndef TAVIX_CORE_TEXT_H_
#define TAVIX_CORE_TEXT_H_

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include "tavix/platform/clock.h"

namespace TAVIX {

// Both conversions end at the first zero unit of their input and turn every
// unit that cannot be converted into U+FFFD.
std::string NarrowString(std::u16string_view text);
std::u16string WiddenString(std::string_view text);

// Decodes the UTF-8 sequence at pos into one or two UTF-16 units and moves
// pos past it; a malformed sequence yields U+FFFD and moves one byte.
size_t DecodeUtf8(std::string_view text, size_t& pos, std::array<char16_t, 2>& units);

// Removes from both ends every character that occurs in `characters`.
std::string& trim(std::string& text, const std::string& characters);
std::u16string& trim(std::u16string& text, const std::u16string& characters);

// Frees an array made with new[] on every way out of a scope.
template <class T>
struct ArrayHelper {
  explicit ArrayHelper(T* array = nullptr) : m_array(array) {}
  virtual ~ArrayHelper() { delete[] m_array; }
  ArrayHelper(const ArrayHelper&) = delete;
  ArrayHelper& operator=(const ArrayHelper&) = delete;

  T* m_array;
};

// (end - start) in milliseconds; a null argument raises std::runtime_error.
double ElapsedMs(const FILETIME* start, const FILETIME* end);

}  // namespace TAVIX

#endif  // TAVIX_CORE_TEXT_H_
