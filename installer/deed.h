#pragma once

// What the commands of the scripts do, and what their words mean, for those who read a product
// without running it. Each keyword's row says both; whoever judges a command asks the row, and
// knows nothing of keywords.

namespace installer {

/// What a command does. Whoever switches on it names all, so that the compiler finds what forgets
/// one that is new.
enum class Deed {
  Copies,  // files and trees into directories, or the value of a setting into another
  Makes,   // a directory, with its missing parents
  Fills,   // a template, into a file, or a format, into a setting
  Writes,  // a value, into a file
  Moves,   // a file or directory to another name
  Removes, // files and trees
  Changes, // the owner or the mode of files and trees
  Tests,   // whether a path is there, into a setting
  Reads,   // a file or the machine, into a setting
  Stops,   // the run, or does nothing
};

/// What a word of a command means. `Pattern`: a directory and a pattern for its entries; `Bounded`:
/// the same of a command that changes or removes what it finds, and therefore refuses emptied
/// settings and all of the root directory; `Directories`: a directory and a pattern for the
/// directories in it; `Value`: a setting, or the text itself when it has no value; `Decision`: a
/// setting that says yes or no; `Result`: a setting that is set; `Format`: a setting that is read;
/// `Missing`: a setting that becomes "true" when there is no result; `Message`: the rest of the
/// line.
enum class Operand {
  Pattern,
  Bounded,
  Path,
  Directories,
  Exclusions,
  Owner,
  Mode,
  Value,
  Decision,
  Result,
  Format,
  Missing,
  Message,
};

} // namespace installer
