#pragma once

// Writing a file so that whoever looks finds the old contents, or no file, or the new contents,
// never a part: what is written goes into a new file beside it, which gets its name when all is
// there. A kill at any moment leaves one or the other. There is no fsync: a power cut is another
// matter.

#include "installer/lib.h"
#include "installer/links.h"

#include <functional>
#include <string>

namespace installer {

/// Where a file is written that is not there yet. `Beside`: as one that is there. `InPlace`: under
/// its name, which is faster; a failure removes it, a kill leaves a part.
enum class NewFile { Beside, InPlace };

/// A file that is being written, as ".NAME" and ".installer-new" beside its place. A regular file
/// that is there already is replaced, by one with its owner, group, mode, access list and extended
/// attributes. It is opened for writing first, so that nothing is replaced that could not have been
/// written. A new file has the default mode, and does not replace what got its name meanwhile.
/// Written in place, emptied first, are: what is no regular file, has other names, was reached
/// through a link or is a mount point; what lies where no file can be created, or no second name
/// has room; and a file whose owner or attributes a new one cannot get. Of these a new file is
/// removed when it fails.
///
///     Replacement out{path};
///     if (!out) ...                            // out.cause() says why
///     if (out.write(text, size) && out.commit()) ...
class Replacement {
public:
  /// At the end of a path relative to the open directory `dir`, through trusted links. `source` (-1
  /// for none): what will be written comes from this file; when it is the target itself, nothing is
  /// opened and `same` is true. `NewFile::InPlace` wants a `path` that is a name.
  explicit Replacement(const char *path, int dir = AT_FDCWD, int source = -1,
                       NewFile where = NewFile::Beside);
  Replacement(const Replacement &) = delete;
  Replacement &operator=(const Replacement &) = delete;
  /// Without `commit`, removes the file that was made, unless another has got its name.
  ~Replacement();

  [[nodiscard]] explicit operator bool() const { return static_cast<bool>(out_); }
  [[nodiscard]] bool same() const { return same_; }
  /// Why it could not be opened, or what failed last.
  [[nodiscard]] const Cause &cause() const { return cause_; }
  /// The bytes written, fewer than `size` when writing fails.
  [[nodiscard]] std::size_t write(const char *data, std::size_t size);
  /// A stream that writes to the same file; it is finished before `commit`.
  [[nodiscard]] Stream stream();
  /// Closes the file and gives it its name. False: some of it did not arrive, and an old file that
  /// was to be replaced is as it was, or the name is taken (EEXIST).
  [[nodiscard]] bool commit();

private:
  void open(int source);
  void open_existing(int source);
  bool open_beside(const struct ::stat &old);
  void open_in_place(const struct ::stat &old);
  bool make(const std::string &name, ::mode_t mode);
  bool make_beside(::mode_t mode);
  void identify();
  [[nodiscard]] Cause lost() const;
  [[nodiscard]] Cause finish_contents();
  [[nodiscard]] Cause take_name();
  void discard();

  Spot spot_;
  std::string made_;       // the name of the file that was made; empty: the old one is written to
  struct ::stat new_ = {}; // which file that is, once it is asked
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
