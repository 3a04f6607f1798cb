#pragma once

// time_def: conversion of timecodes and film labels between their text forms.
//
// A timecode has two text forms:
//  * punctuated, as people read it and as "timecode" cells hold it:
//    "HH:MM:SS:FF", with ';' before the frames for drop-frame ("01:00:00;12");
//  * database, as "timecode_s" cells hold it: the eight digits "HHMMSSFF",
//    followed by "D" for drop-frame ("01000012D").
// Parsing accepts either form, '.' or ',' as separators, and surrounding
// blanks. A valid timecode has hours < 24, minutes and seconds < 60 and
// frames < 60; conversion between the forms is then exact both ways. Text
// that is not a valid timecode is kept as it was (trimmed) by both getters,
// so converting a column never loses what a cell held.
//
// Other label types (keycodes, inkcodes, camcodes, 24P codes) are carried as
// their text; both getters return it trimmed.

#include <zyldb/export.h>
#include <zyldb/platform/LightweightString.h>

enum label_t {
  eLabelNone = 0,
  eLabelKeycode = 1,
  eLabelInkcode = 2,
  eLabelCamcode = 3,
  eLabel24P = 4,
  eLabelSoundTimecode = 5,
  eLabelTimecode = 6,  // the type used for "timecode_s" cells
};

class ZYLDB_EXPORT time_def {
 public:
  time_def() = default;
  time_def(const char* text, label_t type);
  time_def(const char* text, int type) : time_def(text, static_cast<label_t>(type)) {}

  bool isValid() const { return valid_; }
  bool isDropFrame() const { return drop_; }
  int hours() const { return h_; }
  int minutes() const { return m_; }
  int seconds() const { return s_; }
  int frames() const { return f_; }

  LightweightString<char> get_punctuated_str() const;
  LightweightString<char> get_database_str() const;

 private:
  LightweightString<char> text_;  // the trimmed input
  label_t type_ = eLabelNone;
  bool valid_ = false;
  bool drop_ = false;
  int h_ = 0, m_ = 0, s_ = 0, f_ = 0;
};
