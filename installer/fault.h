#pragma once

// A fault of a product's file, as a value with a place. Whoever has a file read gives the sink that
// takes its faults: the program's own is `log_fault` (log.h), another program may collect them.

#include "installer/lib.h"

#include <cstddef>
#include <functional>
#include <string>

namespace installer {

/// `Error`: something is dropped, fails or cannot be read, and the program logs it. `Remark`: the
/// program reads on as if nothing were; a packager may want to know.
enum class Severity { Error, Remark };

/// What kind of fault it is. Those from `ByteOrderMark` on are remarks, and reported once for each
/// line (`ByteOrderMark`, `CarriageReturn`, `Outside`: for each file).
enum class FaultKind {
  Unreadable,     // the file cannot be opened or read; the text has the reason
  Binary,         // it holds a zero byte where one matters
  NoSection,      // it lacks the section
  UnknownKeyword, // `word` is the keyword
  MissingWord,    // the line ends too early and is dropped; `lacks` is what is missing
  Cut,            // a word may have been lost behind the 999th character
  Repeated,       // a name was given before
  Circle,         // a setting leads back to itself; `word` is its name
  Failed,         // an item could not do its work; `word` is its keyword
  ByteOrderMark,  // the file begins with one
  CarriageReturn, // a line ends with one
  LongLine,       // what is behind the 999th character is read as a line of its own
  Surplus,        // words at the end are not read; `word` is the first of them
  Outside,        // a line stands before the first section
};

/// An operation that failed: what could not be done ("cannot write"), to which path, and why.
struct Failure {
  std::string what;
  std::string path;
  Cause cause;
};

/// `file`: as it was given to the loader. `line`: from 1, as an editor counts; 0 for the file as a
/// whole. `text`: the whole message. `word`: the word that it is about, if any. `failure`: of a
/// fault of the kind `Failed`, else empty. `lacks`: what a line that ends too early lacks; `word`
/// is then its keyword. `section`: that the line stands in, as its header has it; empty for none.
struct Fault {
  Severity severity = Severity::Error;
  FaultKind kind = FaultKind::Unreadable;
  std::string file;
  std::size_t line = 0;
  std::string text;
  std::string word;
  Failure failure = {};
  std::string lacks = {};
  std::string section = {};
};

/// Takes faults in the order in which they are found. An empty one is not called.
using Faults = std::function<void(const Fault &)>;

} // namespace installer
