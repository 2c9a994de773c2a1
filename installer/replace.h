#pragma once

// Writing a file so that whoever looks finds the old contents or the new ones, never a part: what
// is written goes into a new file beside the old one, which gets its name when all is there. A kill
// at any moment leaves one or the other. There is no fsync: a power cut is another matter.

#include "installer/lib.h"
#include "installer/links.h"

#include <functional>
#include <string>

namespace installer {

/// A file that is being written. A regular file that is there already is replaced by ".NAME" and
/// ".installer-new" beside it, with the owner, group, mode, access list and extended attributes of
/// the old one. It is opened for writing first, so that nothing is replaced that could not have
/// been written. Written in place, emptied first, are: what is no regular file, has other names,
/// was reached through a link or is a mount point; what lies where no file can be created, or no
/// second name has room; and a file whose owner or attributes a new one cannot get.
///
///     Replacement out{path};
///     if (!out) ...                            // out.cause() says why
///     if (out.write(text, size) && out.commit()) ...
class Replacement {
public:
  /// At the end of a path relative to the open directory `dir`, through trusted links. `source` (-1
  /// for none): what will be written comes from this file; when it is the target itself, nothing is
  /// opened and `same` is true.
  explicit Replacement(const char *path, int dir = AT_FDCWD, int source = -1);
  Replacement(const Replacement &) = delete;
  Replacement &operator=(const Replacement &) = delete;
  /// Without `commit`, removes what was written beside the file.
  ~Replacement();

  [[nodiscard]] explicit operator bool() const { return static_cast<bool>(out_); }
  [[nodiscard]] bool same() const { return same_; }
  /// Why it could not be opened, or what failed last.
  [[nodiscard]] const Cause &cause() const { return cause_; }
  /// The bytes written, fewer than `size` when writing fails.
  [[nodiscard]] std::size_t write(const char *data, std::size_t size);
  /// A stream that writes to the same file; it is finished before `commit`.
  [[nodiscard]] Stream stream();
  /// Closes the file and puts it in the place of the old one. False: some of it did not arrive, and
  /// an old file that was to be replaced is as it was.
  [[nodiscard]] bool commit();

private:
  void open(int source);
  void open_existing(int source);
  bool open_beside(const struct ::stat &old);
  void open_in_place(const struct ::stat &old);
  void discard();
  [[nodiscard]] bool overtaken() const;

  Spot spot_;
  std::string beside_;
  struct ::stat new_ = {}; // the file `beside_` as it was made
  Descriptor old_;
  Descriptor out_;
  Cause cause_;
  bool same_ = false;
  bool fragile_ = false; // what writing takes away is given once more
};

/// Writes the text that `value` returns (null: nothing) into a file; it is asked for once the file
/// is open. The cause of a failure, or none.
[[nodiscard]] Cause write_text(const char *file, const std::function<const char *()> &value);

} // namespace installer
