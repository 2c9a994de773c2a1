#pragma once

// The copy script: one section of it as a list of file commands, and the run of that list.
// `copy_init`, `copy_setup`, `copy_load`, `copy_process`, `copy_error`, `copy_free`.
//
// References "$(name)" in `source` and `dest` are expanded once, while the script is loaded; what a
// command does with settings while the script runs is read and written then.

#include "installer/deed.h"
#include "installer/file.h"
#include "installer/ini.h"
#include "installer/lib.h"
#include "installer/lines.h"
#include "installer/log.h"

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace installer {

/// Types of commands. `Cpy` and `Rm` are the bits of the copy and removal families. 0: a keyword
/// that is not known.
enum class CType : std::uint32_t {
  Cpy = 0x100,
  CpyFile = 0x101,
  CpyDir = 0x102,
  MkDir = 0x104,
  CpyIni = 0x108,
  Rename = 0x110,
  Rm = 0x200,
  RmFile = 0x201,
  RmDir = 0x202,
  Exist = 0x400,
  Chown = 0x800,
  Chmod = 0x801,
  Error = 0x1000,
  WFile = 0x2000,
  RFile = 0x4000,
};

/// One command. `source`, `dest`: the operands, what they mean depends on the type; `not_`: names
/// that are left out (patterns; null for none); `control`, `control_cmp`: when it runs (see
/// `copy_do`); `empty_setting` and `empty_dest`: a setting whose reference in `source` or `dest`
/// was replaced by nothing; `cut`: one of these may not be whole, for the line was too long;
/// `line`: where it stands in the file, from 1.
struct copy_cmd {
  Text source;
  Text dest;
  Text not_;
  Text control;
  Text control_cmp;
  CType type = static_cast<CType>(0);
  Text empty_setting;
  Text empty_dest;
  bool cut = false;
  std::size_t line = 0;
};
using CCmd = copy_cmd;

/// A field of a command line. `name`: in the debug log; `missing`: the error when it is not there,
/// null for one that may be missing; `called`: what the manual calls it.
struct CopySlot {
  Text copy_cmd::*field;
  const char *name;
  const char *missing;
  Operand operand;
  const char *called;
};

/// Lines of the templates of `Ini` are read in pieces of this size, terminator included.
inline constexpr std::size_t TemplateLineSize = 3000;

struct copy;

/// All about one keyword: what it does (`trees`: also with directories and all that they hold), its
/// fields in the order of the line, and the function that runs it (see below). One that does not
/// end with a message may end with a control and a comparison.
struct CopyCommand {
  const char *word;
  CType type;
  Deed deed;
  bool trees;
  std::span<const CopySlot> slots;
  int (*run)(copy *x, std::uint32_t index, std::uint64_t *bytes);
};

/// All keywords; they are compared without case.
[[nodiscard]] std::span<const CopyCommand> copy_commands();
/// The row of a type; for a type of no keyword one without word whose command fails.
[[nodiscard]] const CopyCommand &copy_command(CType type);
/// What the field `source` of such a command means.
[[nodiscard]] Operand source_operand(const CopyCommand &command);

/// Who follows a run: `begins` is called before the first line about a command is logged, `event`
/// for each thing that it does or fails to do, `ends` with its result. `ends` decides whether the
/// run ends with this command (true). All three are set.
struct CopyWatch {
  std::function<void(std::uint32_t index)> begins;
  FileSink event;
  std::function<bool(std::uint32_t index, int result)> ends;
};

/// A loaded section: the commands in file order, the store, and the watch, which may be null (not
/// owned).
struct copy {
  std::vector<CCmd> list;
  Ini ini = nullptr;
  std::uint32_t count = 0;
  const CopyWatch *watch = nullptr;
};
using pCopy = copy *;

// ---- Life cycle ----

/// A new empty script on the store `ini`, for `copy_free`.
[[nodiscard]] pCopy copy_init(Ini ini);
/// Releases the script, not the store, and sets the variable to null. Nothing for a null address or
/// script.
void copy_free(pCopy *x);
/// An owned script.
using CopyOwner = std::unique_ptr<copy, Release<copy_free>>;
/// Installs the progress callbacks of the file operations, for the whole process.
void copy_setup(pCopy x, FileCallback xok, FileCallback xfail);
/// Reads the section (named without case) into the empty script `x`. `faults` takes what is wrong
/// with it: a line that lacks a field is dropped; an unknown keyword is kept as type 0; a command
/// of which a word may be cut is kept and fails. 1; 0 for a null argument, a missing section (no
/// fault), or a file that cannot be read.
[[nodiscard]] int copy_load(pCopy x, const char *file, const char *section,
                            const Faults &faults = log_fault);
/// What continues a comment of a script is a comment.
inline constexpr LineRules CopyLines = {.joined_comments = true};
/// Appends the commands of the section that `lines` has entered.
void copy_read(pCopy x, Lines &lines, const Faults &faults);

// ---- Look-up: null or 0 for a null script or an index out of range ----

[[nodiscard]] std::uint32_t copy_count(pCopy x);
[[nodiscard]] const char *copy_src(pCopy x, std::uint32_t index);
[[nodiscard]] const char *copy_dst(pCopy x, std::uint32_t index);
[[nodiscard]] const char *copy_not(pCopy x, std::uint32_t index);
[[nodiscard]] const char *copy_control(pCopy x, std::uint32_t index);
[[nodiscard]] const char *copy_control_cmp(pCopy x, std::uint32_t index);

/// The two parts of an operand: the directory up to and with its last separator (the working
/// directory when there is none), and what follows. A source that ends with a separator has the
/// pattern "*"; a destination without a separator, or that ends with one, has no pattern (null).
/// `buffer`, cut at `bfsz` - 1 characters; null also for a null operand or buffer.
char *copy_src_path(pCopy x, std::uint32_t index, char *buffer, std::size_t bfsz);
char *copy_src_file(pCopy x, std::uint32_t index, char *buffer, std::size_t bfsz);
char *copy_dst_path(pCopy x, std::uint32_t index, char *buffer, std::size_t bfsz);
char *copy_dst_file(pCopy x, std::uint32_t index, char *buffer, std::size_t bfsz);

/// `string` with each "$(name)" of a setting that has a value (name with case) replaced by it, cut
/// at 8999 characters; other references stay, inserted text is not looked at again. At most 9999
/// characters. None when an argument is null or there is no "$(". `emptied` (may be null) receives
/// the name of a setting whose value was the empty text.
[[nodiscard]] Text replace_vars(pCopy x, const char *string, Text *emptied = nullptr);
/// Finishes command `index` after it was read: "-" as exclusion list becomes none, `source` and
/// `dest` are expanded.
void copy_processpaths(pCopy x, std::int32_t index);

// ---- Running ----

/// Runs all commands in order. `files` and `bytes` (either may be null) are set to 0 first; `files`
/// grows by the result of each command, `bytes` by the bytes copied. With `stop_on_fail` the first
/// result of 0 ends the run; where there is a watch, that decides instead. 1: went through; 0:
/// stopped, or `x` is null.
[[nodiscard]] int copy_process(pCopy x, std::uint64_t *files, std::uint64_t *bytes,
                               int stop_on_fail);
/// Runs one command. It runs when its control names no setting with a value; or, without a
/// comparison, when that value is a true word; or when the value equals the comparison (the value
/// of the setting of that name, else the word itself) without case. The number of items handled; 0
/// failed; -1 not run.
int copy_do(pCopy x, std::uint32_t index, std::uint64_t *bytes);

/// Single commands without their control: 0 failed (or null script, index out of range).
int copy_files(pCopy x, std::uint32_t index, std::uint64_t *bytes);
int copy_remove(pCopy x, std::uint32_t index);
int copy_mkdir(pCopy x, std::uint32_t index);
int copy_chown(pCopy x, std::uint32_t index);
int copy_chmod(pCopy x, std::uint32_t index);
int copy_write_ini(pCopy x, std::uint32_t index);
int copy_rename(pCopy x, std::uint32_t index);
int copy_exist(pCopy x, std::uint32_t index);
int copy_seterror(pCopy x, std::uint32_t index);
int copy_wfile(pCopy x, std::uint32_t index);
int copy_rfile(pCopy x, std::uint32_t index);

/// Changes the entries of `path` that match `file`, contents of directories first, links followed
/// but not into. `exclude` is matched without case against full paths. A failure ends the listing
/// that it happened in. The number of entries changed.
int dochown(const char *path, const char *file, const char *exclude, ::uid_t uid, ::gid_t gid);
int dochmod(const char *path, const char *file, const char *exclude, ::mode_t mode);

/// The message of the last `Error` command that failed, or the empty text. It lasts until the next.
[[nodiscard]] const char *copy_error();
/// Logs an error of the module; with errno set, ", " and the system's text are appended.
[[gnu::format(printf, 1, 2)]] void cerror(const char *format, ...);

} // namespace installer
