#include "installer/copy.h"

#include "installer/links.h"
#include "installer/log.h"
#include "installer/replace.h"

#include <cstring>
#include <new>
#include <string>
#include <utility>

#include <fcntl.h>

namespace installer {

namespace {

constexpr std::size_t OperandSize = 1000;

Text last_error;

const FileSink *sink_of(pCopy x) { return x->watch != nullptr ? &x->watch->event : nullptr; }

/// An operand, split into a directory and a pattern (empty for none).
struct Operands {
  std::string path;
  std::string file;
};

/// Splits one with the accessors of its field, uncut. False when there is nothing to split.
template <auto path_of, auto file_of>
bool split(pCopy x, std::uint32_t index, const char *operand, Operands &parts) {
  if (operand == nullptr) return false;
  std::string buffer(std::strlen(operand) + PathSize, '\0');
  path_of(x, index, buffer.data(), buffer.size());
  parts.path = buffer.c_str();
  const char *file = file_of(x, index, buffer.data(), buffer.size());
  parts.file = or_empty(file);
  return file != nullptr;
}

/// False, told, when a part has no room where paths are built.
bool has_room(pCopy x, const Operands &parts, const char *operand) {
  if (parts.path.size() < PathSize && parts.file.size() < PathSize) return true;
  file_failure(sink_of(x), "cannot reach", operand, {ENAMETOOLONG}, "Path too long in '%s'",
               operand);
  return false;
}

/// False, told, when a reference in the operand was replaced by nothing.
bool not_emptied(pCopy x, const Text &setting, const char *operand) {
  if (!setting) return true;
  file_failure(sink_of(x), "an emptied setting, nothing done", operand, {},
               "Setting '%s' is empty, nothing done for '%s'", text_of(setting), operand);
  return false;
}

/// False, told: the operand does not fit, or it reaches further than the packager can have meant.
bool split_source(pCopy x, std::uint32_t index, Operands &source) {
  const char *operand = copy_src(x, index);
  if (!split<copy_src_path, copy_src_file>(x, index, operand, source)) return false;
  if (!has_room(x, source, operand)) return false;
  const CCmd &command = x->list[index];
  if (source_operand(copy_command(command.type)) == Operand::Bounded &&
      !not_emptied(x, command.empty_setting, operand))
    return false;
  if (!has_wildcard(source.file.c_str()) || !same_file(source.path.c_str(), "/")) return true;
  file_failure(sink_of(x), "reaches all of the root directory, nothing done", operand, {},
               "'%s' reaches all of the root directory, nothing done", operand);
  return false;
}

void report_nothing(pCopy x, std::uint32_t index) {
  file_event(sink_of(x), {FileResult::Nothing, "nothing matches", copy_src(x, index), {}});
}

// ---- Copying and removing ----

/// At the top, names are compared without case.
bool excluded(const char *name, const char *exclude) { return wild_ilist(name, exclude) != 0; }

/// The sink of a walk at the top. `copies`: what is missed is a failed copy; but the directory that
/// was named is not.
MissedSink missed_at_top(pCopy x, std::uint32_t index, bool copies) {
  return [=](const Missed &missed) {
    if (!excluded(missed.name, copy_not(x, index)))
      file_missed(sink_of(x), missed, copies && !missed.opening);
  };
}

/// The directories that match the destination; told when there is none, as when it has no pattern.
std::vector<std::string> find_destinations(pCopy x, std::uint32_t index) {
  std::vector<std::string> found;
  Cause cause;
  Operands dest;
  const char *operand = copy_dst(x, index);
  if (split<copy_dst_path, copy_dst_file>(x, index, operand, dest)) {
    if (has_room(x, dest, operand)) {
      Entries entries{dest.path.c_str(), dest.file.c_str(), missed_at_top(x, index, false)};
      for (File entry : entries)
        if (is_dir(*entry) && !excluded(entry_name(*entry), copy_not(x, index)))
          found.emplace_back(entry->name);
      cause = entries.cause();
    } else {
      cause = {ENAMETOOLONG};
    }
  }
  if (found.empty())
    file_failure(sink_of(x), "no directory to copy to", operand, cause,
                 "No destination directories found");
  return found;
}

int copy_into(pCopy x, std::uint32_t index, Copying &copying, const Operands &source,
              const Target &into) {
  const char *path = source.path.c_str();
  Entries entries{path, source.file.c_str(), missed_at_top(x, index, true)};
  if (!entries) imsg("No files found to copy in '%s' matching '%s'", path, source.file.c_str());
  if (!entries) report_nothing(x, index);
  int count = 0;
  for (File entry : entries) {
    if (excluded(entry_name(*entry), copying.exclude)) continue;
    if (!is_dir(*entry)) count += file_copy_entry(copying, *entry, into);
    else if (copying.tree) count += file_xcopy_entry(copying, *entry, into);
  }
  return count;
}

// ---- Owners and modes ----

/// The words of the debug lines.
struct ChangeWords {
  const char *verb;
  const char *not_doing;
  const char *doing;
};
constexpr ChangeWords chown_words = {"chown", "chown'ing", "chown'ing"};
constexpr ChangeWords chmod_words = {"chmod", "chmod'ding", "chmod'ing"};

void log_listing(const Entries &entries, const char *exclude, const ChangeWords &words) {
  if (!entries) dmsg("No files found to %s", words.verb);
  else if (exclude != nullptr) dmsg("Found files to %s, not doing '%s'", words.verb, exclude);
  else dmsg("Found files to %s, doing all of them", words.verb);
}

/// Here whole paths are compared.
MissedSink missed_change(const char *exclude, const FileSink *sink) {
  return [=](const Missed &missed) {
    const std::string path = std::string{missed.path} + Sep + or_empty(missed.name);
    if (missed.name == nullptr || wild_ilist(path.c_str(), exclude) == 0)
      file_missed(sink, missed, false);
  };
}

template <class Change>
int change_each(Entries entries, const char *exclude, const ChangeWords &words,
                const FileSink *sink, Change change) {
  log_listing(entries, exclude, words);
  int count = 0;
  for (File entry : entries) {
    if (wild_ilist(entry->name, exclude) != 0) {
      dmsg("Not %s '%s'", words.not_doing, entry->name);
      continue;
    }
    if (is_dir(*entry))
      count +=
          change_each(Entries{*entry, missed_change(exclude, sink)}, exclude, words, sink, change);
    if (change(entry) == 0) {
      dmsg("file_%s failed", words.verb);
      break;
    }
    ++count;
  }
  dmsg("Finished %s, %d files done", words.doing, count);
  return count;
}

/// The entries that a command changes; told when there is none.
Entries list_changed(const char *path, const char *file, const char *exclude,
                     const FileSink *sink) {
  Entries entries{path, file, missed_change(exclude, sink)};
  if (!entries)
    file_event(sink,
               {FileResult::Nothing, "nothing matches", (std::string{path} + file).c_str(), {}});
  return entries;
}

int change_owners(const char *path, const char *file, const char *exclude, const FileSink *sink,
                  ::uid_t uid, ::gid_t gid) {
  return change_each(list_changed(path, file, exclude, sink), exclude, chown_words, sink,
                     [=](File entry) { return file_chown(entry, uid, gid, sink); });
}

int change_modes(const char *path, const char *file, const char *exclude, const FileSink *sink,
                 ::mode_t mode) {
  return change_each(list_changed(path, file, exclude, sink), exclude, chmod_words, sink,
                     [=](File entry) { return file_chmod(entry, mode, sink); });
}

// ---- Settings files ----

/// Writes one template line: expanded and without its indentation when it holds a reference, else
/// as it stands.
bool write_template_line(pCopy x, char *piece, std::FILE *out) {
  const char *trimmed = s_strtrm(piece);
  const Text expanded = replace_vars(x, trimmed);
  return std::fputs(expanded ? expanded->c_str() : piece, out) >= 0 && std::fputc('\n', out) >= 0;
}

/// Why the template cannot be used: it cannot be read to its end, or holds a zero byte, behind
/// which a line would be lost. What is read next is the first line.
Cause try_template(std::FILE *in) {
  char piece[TemplateLineSize];
  std::size_t size = 0;
  do size = read_piece(in, piece, sizeof piece);
  while (size > 0 && std::strlen(piece) == size);
  if (size > 0) return ZeroByte;
  const bool good = std::ferror(in) == 0 && std::fseek(in, 0, SEEK_SET) == 0;
  return good ? Cause{} : last_cause();
}

/// Why the template could not be read to its end. Failures to write stay with the stream.
Cause write_lines(pCopy x, std::FILE *in, std::FILE *out) {
  char piece[TemplateLineSize];
  bool written = true;
  while (written && read_piece(in, piece, sizeof piece) > 0)
    written = write_template_line(x, piece, out);
  return std::ferror(in) == 0 ? Cause{} : last_cause();
}

/// Fills the template into the target, which is open.
int fill_template(pCopy x, std::uint32_t index, std::FILE *in, Replacement &target) {
  const char *dest = copy_dst(x, index);
  Stream out = target.stream();
  if (!out)
    return file_failure(sink_of(x), "cannot write", dest, target.cause(),
                        "Error creating ini file '%s'", dest);
  imsg("Writing INI file '%s' to '%s'", copy_src(x, index), dest);
  const Cause unread = write_lines(x, in, out.get());
  Cause cause;
  if (!finish(std::move(out))) cause = last_cause();
  if (unread)
    file_event(sink_of(x), {FileResult::Failed, "cannot read", copy_src(x, index), unread});
  else if (!cause && !target.commit()) cause = target.cause();
  if (!cause) return unread ? 0 : 1;
  return file_failure(sink_of(x), "cannot write", dest, cause, "Error writing ini file '%s'", dest);
}

// ---- Running ----

/// False, told, when an operand of a `Rename` reaches further than the packager can have meant.
bool may_rename(pCopy x, const Text &emptied, const char *operand) {
  if (!not_emptied(x, emptied, operand)) return false;
  struct ::stat named = {}; // not what a link leads to, which stays where it is
  struct ::stat root = {};
  const bool known = ::lstat(operand, &named) == 0 && ::stat("/", &root) == 0;
  if (!known || !same_inode(named, root)) return true;
  file_failure(sink_of(x), "the root directory, nothing done", operand, {},
               "'%s' is the root directory, nothing done", operand);
  return false;
}

int run_told(pCopy x, std::uint32_t index, std::uint64_t *bytes) {
  if (x->watch != nullptr) x->watch->begins(index);
  dmsg("Processing [%d:%s->%s,%s,%s,%s]", static_cast<int>(x->list[index].type),
       or_empty(copy_src(x, index)), or_empty(copy_dst(x, index)), or_empty(copy_not(x, index)),
       or_empty(copy_control(x, index)), or_empty(copy_control_cmp(x, index)));
  return copy_do(x, index, bytes);
}

/// True, logged, when a command with that result is the last. What failed in part has a result as
/// well; only a watch knows of it.
bool stops(pCopy x, std::uint32_t index, int result, int stop_on_fail) {
  const bool stop =
      x->watch != nullptr ? x->watch->ends(index, result) : result == 0 && stop_on_fail != 0;
  if (stop) imsg("Stop on fail set, stopping...");
  else if (result == 0) imsg("Stop on fail NOT set, continuing...");
  return stop;
}

} // namespace

int copy_process(pCopy x, std::uint64_t *files, std::uint64_t *bytes, int stop_on_fail) {
  if (x == nullptr) return 0;
  if (bytes != nullptr) *bytes = 0;
  if (files != nullptr) *files = 0;
  imsg("Processing copy script...");
  for (std::uint32_t index = 0; index < copy_count(x); ++index) {
    const int result = run_told(x, index, bytes);
    if (result > 0 && files != nullptr) *files += static_cast<std::uint64_t>(result);
    if (stops(x, index, result, stop_on_fail)) return 0;
  }
  imsg("Copy script completed successfully");
  return 1;
}

int copy_do(pCopy x, std::uint32_t index, std::uint64_t *bytes) {
  if (index >= copy_count(x)) return 0;
  if (x->list[index].cut) {
    const char *source = or_empty(copy_src(x, index));
    return file_failure(sink_of(x), "line too long, nothing done", source, {},
                        "Line too long, nothing done for '%s'", source);
  }
  if (!gate_open(x->ini, copy_control(x, index), copy_control_cmp(x, index), Case::Ignored)) {
    dmsg("Doing nothing due to controlling setting");
    return -1;
  }
  try {
    return copy_command(x->list[index].type).run(x, index, bytes);
  } catch (const std::bad_alloc &) {
    return file_failure(sink_of(x), "cannot be done", copy_src(x, index), {ENOMEM},
                        "Command failed for '%s'", copy_src(x, index));
  }
}

int copy_files(pCopy x, std::uint32_t index, std::uint64_t *bytes) {
  Operands source;
  if (!split_source(x, index, source)) return 0;
  const std::vector<std::string> destinations = find_destinations(x, index);
  Copying copying{.exclude = copy_not(x, index),
                  .tree = copy_command(x->list[index].type).trees,
                  .bytes = bytes,
                  .sink = sink_of(x)};
  for (const std::string &directory : destinations) copying.fill(directory.c_str());
  int count = 0;
  for (const std::string &directory : destinations)
    count += copy_into(x, index, copying, source, open_target(directory.c_str()));
  return count;
}

int copy_remove(pCopy x, std::uint32_t index) {
  Operands source;
  if (!split_source(x, index, source)) return 0;
  const char *exclude = copy_not(x, index);
  const bool trees = copy_command(x->list[index].type).trees;
  Entries entries{source.path.c_str(), source.file.c_str(), missed_at_top(x, index, false)};
  if (!entries) report_nothing(x, index);
  int count = 0;
  for (File entry : entries) {
    if (excluded(entry_name(*entry), exclude)) continue;
    if (!is_dir(*entry)) count += file_remove_entry(*entry, sink_of(x));
    else if (trees) count += file_rmdir_entry(*entry, exclude, sink_of(x));
  }
  return count;
}

int copy_mkdir(pCopy x, std::uint32_t index) {
  return index < copy_count(x) ? file_mkdir(copy_src(x, index), 1, sink_of(x)) : 0;
}

int copy_chown(pCopy x, std::uint32_t index) {
  Operands source;
  if (!split_source(x, index, source)) return 0;
  char owner[OperandSize] = "";
  ini_replace(x->ini, copy_dst(x, index), owner, sizeof owner - 1);
  char *colon = std::strchr(owner, ':');
  const char *group = colon != nullptr ? colon + 1 : owner;
  if (colon != nullptr) *colon = '\0';
  Cause no_user;
  Cause no_group;
  const ::uid_t uid = file_getuid(owner, &no_user);
  dmsg("Found user id for '%s'=%d", owner, static_cast<int>(uid));
  const ::gid_t gid = file_getgid(group, &no_group);
  dmsg("Found group id for '%s'=%d", group, static_cast<int>(gid));
  if (uid == static_cast<::uid_t>(-1))
    file_event(sink_of(x), {FileResult::Failed, "no such user", owner, no_user});
  // Only a group that was not named may be missing.
  else if (gid == static_cast<::gid_t>(-1) && (colon != nullptr || no_group))
    file_event(sink_of(x), {FileResult::Failed, "no such group", group, no_group});
  return change_owners(source.path.c_str(), source.file.c_str(), copy_not(x, index), sink_of(x),
                       uid, gid);
}

int copy_chmod(pCopy x, std::uint32_t index) {
  Operands source;
  if (!split_source(x, index, source)) return 0;
  char digits[OperandSize];
  scpy(digits, copy_dst(x, index), sizeof digits);
  std::uint32_t mode = 0;
  for (const char *c = digits; *c != '\0'; ++c)
    mode = mode * 8 + static_cast<std::uint32_t>(*c - '0');
  return change_modes(source.path.c_str(), source.file.c_str(), copy_not(x, index), sink_of(x),
                      mode);
}

int dochown(const char *path, const char *file, const char *exclude, ::uid_t uid, ::gid_t gid) {
  return change_owners(path, file, exclude, nullptr, uid, gid);
}

int dochmod(const char *path, const char *file, const char *exclude, ::mode_t mode) {
  return change_modes(path, file, exclude, nullptr, mode);
}

int copy_write_ini(pCopy x, std::uint32_t index) {
  if (index >= copy_count(x)) return 0;
  const char *source = copy_src(x, index);
  const char *dest = or_empty(copy_dst(x, index));
  Cause cause;
  const Stream in = open_text(source, cause);
  // The whole is tried before the target is touched.
  if (in) cause = try_template(in.get());
  if (cause)
    return file_failure(sink_of(x), "cannot read", source, cause, "Error reading ini file '%s'",
                        source);
  Replacement target{dest, AT_FDCWD, ::fileno(in.get())};
  if (target) return fill_template(x, index, in.get(), target);
  cause = target.same() ? Cause{EINVAL} : target.cause();
  return file_failure(sink_of(x), "cannot write", dest, cause, "Error creating ini file '%s'",
                      dest);
}

int copy_rename(pCopy x, std::uint32_t index) {
  if (index >= copy_count(x)) return 0;
  const CCmd &command = x->list[index];
  const char *source = or_empty(copy_src(x, index));
  const char *dest = or_empty(copy_dst(x, index));
  if (!may_rename(x, command.empty_setting, source)) return 0;
  if (!may_rename(x, command.empty_dest, dest)) return 0;
  const Spot from = find_place(AT_FDCWD, source);
  const Spot to = find_place(AT_FDCWD, dest);
  Cause cause = from.cause ? from.cause : to.cause;
  if (!cause && ::renameat(from.at(), from.name.c_str(), to.at(), to.name.c_str()) == 0) return 1;
  if (!cause) cause = last_cause();
  return file_failure(sink_of(x), "cannot rename", source, cause, "Error renaming '%s'->'%s', %s",
                      source, dest, cause_text(cause));
}

int copy_exist(pCopy x, std::uint32_t index) {
  if (index >= copy_count(x)) return 0;
  const char *path = copy_src(x, index);
  Cause cause;
  const char *found = file_exist(path, &cause) != 0 ? "true" : "false";
  if (cause.number == ENAMETOOLONG)
    file_failure(sink_of(x), "cannot test", path, cause, "Failed to test (%s)", path);
  else if (cause && !is_absence(cause))
    file_event(sink_of(x), {FileResult::Failed, "cannot test", path, cause});
  ini_add_name(x->ini, copy_dst(x, index), found);
  return 1;
}

int copy_seterror(pCopy x, std::uint32_t index) {
  if (index >= copy_count(x)) return 0;
  if (isfalse(ini_value_name(x->ini, copy_src(x, index))) == 0) return 1;
  last_error = x->list[index].dest;
  file_event(sink_of(x), {FileResult::Failed, copy_error(), nullptr, {}});
  return 0;
}

int copy_wfile(pCopy x, std::uint32_t index) {
  if (index >= copy_count(x)) return 0;
  const char *path = or_empty(copy_src(x, index));
  const Cause cause =
      write_text(path, [=] { return ini_value_or_text(x->ini, copy_dst(x, index)); });
  if (!cause) return 1;
  return file_failure(sink_of(x), "cannot write", path, cause, "Failed to write (%s)", path);
}

int copy_rfile(pCopy x, std::uint32_t index) {
  if (index >= copy_count(x)) return 0;
  const char *path = or_empty(copy_src(x, index));
  std::string text;
  Cause cause;
  const Stream in = open_text(path, cause);
  if (in) cause = read_text(in.get(), text);
  if (cause)
    return file_failure(sink_of(x), "cannot read", path, cause, "Failed to read (%s)", path);
  if (!text.empty()) ini_add_name(x->ini, copy_dst(x, index), text.c_str());
  return 1;
}

const char *copy_error() { return or_empty(text_of(last_error)); }

} // namespace installer
