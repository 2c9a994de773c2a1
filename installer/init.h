#pragma once

// The init script: items that derive settings from the machine before the menu is shown, and the
// discovery of the local web server's configuration for them. `init_init`, `init_load`,
// `init_evaluate`, `init_free`.
//
// A line is a command and four words: `a`, `b`, control, comparison ("-" for none in the last two):
//
//     Exist     path     setting    setting = "true" or "false"
//     Copy      setting  value      setting = the value of that setting, or the word itself
//     HTTP_User setting  missing    also HTTP_Group, HTTP_Root, HTTP_Scripts
//     TimeDate  format   setting    setting = local time by the format in the setting `format`
//     WFile     path     value      writes the value of that setting, or the word itself
//     RFile     path     setting    setting = contents of the file

#include "installer/array.h"
#include "installer/deed.h"
#include "installer/ini.h"
#include "installer/lib.h"
#include "installer/lines.h"
#include "installer/log.h"

#include <cstdint>
#include <span>
#include <string>

namespace installer {

/// `IHTTP` is the bit that the four web-server modes share.
enum IItemMode : std::uint32_t {
  IExist = 1,
  ICopy = 2,
  IHTTP = 16,
  IHTTP_User = 20,
  IHTTP_Group = 24,
  IHTTP_Root = 272,
  IHTTP_Scripts = 528,
  ITimeDate = 1024,
  IWFile = 2048,
  IRFile = 4096,
};

/// One item. Without `compare` it always runs; else when the value of the setting `control`, or the
/// word `control` itself when there is no such value, equals `compare` exactly. A comparison
/// without a control never runs.
struct init_item {
  std::string a;
  std::string b;
  Text compare;
  Text control;
  IItemMode mode = IExist;
  std::size_t line = 0;
};
using IItem = init_item *;

/// All about one keyword: what it does, what its arguments `a` and `b` mean, and the function that
/// runs it, to which a path arrives with its references replaced, and which returns why it failed,
/// if it did. `doing`: what it does with the path in `a`, for its error line; null when `a` is
/// none.
struct InitCommand {
  const char *word;
  IItemMode mode;
  Deed deed;
  Operand a;
  Operand b;
  const char *doing;
  Cause (*run)(Ini ini, const init_item &item, const char *path);
};

/// All keywords; they are compared with case.
[[nodiscard]] std::span<const InitCommand> init_commands();
/// The row of a mode, or null.
[[nodiscard]] const InitCommand *init_command(IItemMode mode);

/// A loaded script: the items in file order, owned, and the path of the file.
struct init_s {
  init_s() = default;
  init_s(const init_s &) = delete;
  init_s &operator=(const init_s &) = delete;
  ~init_s() { array_free_dealloc(&list); }

  Array<init_item> list = array_init<init_item>();
  std::string file;
};
using Init = init_s *;

/// A new empty script for `init_free`.
[[nodiscard]] Init init_init();
/// Releases the script and sets the variable to null. Nothing for a null address or script.
void init_free(Init *x);
/// An owned script.
using InitOwner = std::unique_ptr<init_s, Release<init_free>>;
/// Appends one item per valid line. `faults` takes what is wrong with the others: a line with too
/// few words is dropped (a remark), an unknown command or a line that may be cut as well (an
/// error). 1; 0 for a null argument, or when the file cannot be read: `init_error` then says why.
[[nodiscard]] int init_load(Init x, const char *file, const Faults &faults = log_fault);
/// What continues a comment of a script is a comment.
inline constexpr LineRules InitLines = {.joined_comments = true};
/// Appends the items of the lines to come.
void init_read(Init x, Lines &lines, const Faults &faults);
/// Runs the items in file order on the store. `faults` takes those that fail (a web-server item
/// prints its reason on standard output instead); none stops the rest.
void init_evaluate(Init x, Ini ini, const Faults &faults = log_fault);

/// The item at `index`, or null; the cursor moves behind it.
[[nodiscard]] IItem init_get_num(Init x, int index);
/// The item at the cursor, which moves on; null behind the last.
[[nodiscard]] IItem init_get(Init x);
/// Releases one item and sets the variable to null. Nothing for a null address or item.
void init_item_free(IItem *x);

/// Replaces the module's last error.
[[gnu::format(printf, 1, 2)]] void init_seterror(const char *format, ...);
/// The last error, or the empty text. Borrowed until the next error.
[[nodiscard]] const char *init_error();

/// The places where the web server's configuration is looked for, in order, ended by null. Points
/// to the usual places; a test may let it point elsewhere.
extern const char *const *http_files;

/// Finds the web server's user, group, document root and "cgi-bin" directory. A buffer that is not
/// null (at least 1000 bytes) asks for that value. What has been found stays for the whole run, and
/// the file is read again only while a wanted value is missing. 1; 0 with the reason in `errmsg`
/// (at least 1000 bytes, or null).
[[nodiscard]] int init_find_http_conf(char *user, char *group, char *root, char *scripts,
                                      char *errmsg);

} // namespace installer
