#include "installer/copy.h"

#include "installer/log.h"

#include <cstring>
#include <new>
#include <string>

namespace installer {

namespace {

constexpr std::size_t TemplateLineSize = 3000;
constexpr std::size_t OperandSize = 1000;

Text last_error;

/// An operand that was split into a directory and a pattern.
struct Operands {
  char path[PathSize];
  char file[PathSize];
};

/// False, logged, when a part of the operand was cut on its way into `Operands`.
bool fits(const char *operand) {
  const char *separator = last_separator(operand);
  const char *pattern = separator != nullptr ? separator + 1 : operand;
  if (static_cast<std::size_t>(pattern - operand) < PathSize && std::strlen(pattern) < PathSize)
    return true;
  errno = ENAMETOOLONG;
  cerror("Path too long in '%s'", operand);
  return false;
}

/// False, logged: the operand does not fit, or it reaches further than the packager can have meant.
bool split_source(pCopy x, std::uint32_t index, Operands &source) {
  if (copy_src_path(x, index, source.path, sizeof source.path) == nullptr) return false;
  copy_src_file(x, index, source.file, sizeof source.file);
  if (!fits(copy_src(x, index))) return false;
  const CCmd &command = x->list[index];
  if (source_operand(copy_command(command.type)) != Operand::Bounded) return true;
  if (command.empty_setting) {
    cerror("Setting '%s' is empty, nothing done for '%s'", text_of(command.empty_setting),
           copy_src(x, index));
    return false;
  }
  if (has_wildcard(source.file) && same_file(source.path, "/") != 0) {
    cerror("'%s' reaches all of the root directory, nothing done", copy_src(x, index));
    return false;
  }
  return true;
}

// ---- Copying and removing ----

bool excluded(File entry, const char *exclude) {
  return wild_ilist(entry_name(*entry), exclude) != 0;
}

/// The directories that match the destination; empty also when it has no pattern.
std::vector<std::string> find_destinations(pCopy x, std::uint32_t index) {
  std::vector<std::string> found;
  Operands dest;
  if (copy_dst_path(x, index, dest.path, sizeof dest.path) == nullptr) return found;
  if (copy_dst_file(x, index, dest.file, sizeof dest.file) == nullptr) return found;
  if (!fits(copy_dst(x, index))) return found;
  for (File entry : Entries{dest.path, dest.file})
    if (is_dir(*entry) && !excluded(entry, copy_not(x, index))) found.emplace_back(entry->name);
  return found;
}

int copy_into(pCopy x, std::uint32_t index, const Operands &source, const char *into,
              std::uint64_t *bytes) {
  const char *exclude = copy_not(x, index);
  const bool trees = x->list[index].type == CType::CpyDir;
  Entries entries{source.path, source.file, Walk::Copies};
  if (!entries) imsg("No files found to copy in '%s' matching '%s'", source.path, source.file);
  int count = 0;
  for (File entry : entries) {
    if (excluded(entry, exclude)) continue;
    if (!is_dir(*entry)) count += file_copy_entry(entry, into, bytes);
    else if (trees) count += file_xcopy_entry(entry, exclude, into, bytes);
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

template <class Change>
int change_each(Entries entries, const char *exclude, const ChangeWords &words, Change change) {
  log_listing(entries, exclude, words);
  int count = 0;
  for (File entry : entries) {
    if (wild_ilist(entry->name, exclude) != 0) {
      dmsg("Not %s '%s'", words.not_doing, entry->name);
      continue;
    }
    if (is_dir(*entry)) count += change_each(Entries{*entry}, exclude, words, change);
    if (change(entry) == 0) {
      dmsg("file_%s failed", words.verb);
      break;
    }
    ++count;
  }
  dmsg("Finished %s, %d files done", words.doing, count);
  return count;
}

// ---- Settings files ----

/// Writes one template line: expanded and without its indentation when it holds a reference, else
/// as it stands.
bool write_template_line(pCopy x, char *piece, std::FILE *out) {
  const char *trimmed = s_strtrm(piece);
  const Text expanded = replace_vars(x, trimmed);
  return std::fputs(expanded ? expanded->c_str() : piece, out) >= 0 && std::fputc('\n', out) >= 0;
}

/// False, with errno set, when the template cannot be read to its end or holds a zero byte, behind
/// which a line would be lost. What is read next is the first line.
bool is_text(std::FILE *in, char (&piece)[TemplateLineSize]) {
  std::size_t size = 0;
  do size = read_piece(in, piece, sizeof piece);
  while (size > 0 && std::strlen(piece) == size);
  if (size > 0) errno = EILSEQ;
  else if (std::ferror(in) == 0) return std::fseek(in, 0, SEEK_SET) == 0;
  return false;
}

/// Writes `piece` and all further lines of the template. 0 when either file fails; a failure to
/// write is logged.
int write_lines(pCopy x, std::uint32_t index, std::FILE *in, Stream out,
                char (&piece)[TemplateLineSize], std::size_t size) {
  bool written = true;
  while (size > 0 && written) {
    written = write_template_line(x, piece, out.get());
    size = read_piece(in, piece, sizeof piece);
  }
  const bool read_all = std::ferror(in) == 0;
  if (finish(std::move(out))) return read_all ? 1 : 0;
  cerror("Error writing ini file '%s'", copy_dst(x, index));
  return 0;
}

// ---- Running ----

bool gate_open(pCopy x, std::uint32_t index) {
  // Both are looked up, whatever the first gives: a look-up decides where the next value goes.
  const char *control = ini_value_name(x->ini, copy_control(x, index));
  const char *compare = ini_value_or_text(x->ini, copy_control_cmp(x, index));
  if (control == nullptr) return true;
  return compare != nullptr ? s_stricmp(compare, control) == 0 : istrue(control) != 0;
}

int out_of_memory(pCopy x, std::uint32_t index) {
  errno = ENOMEM;
  cerror("Command failed for '%s'", copy_src(x, index));
  return 0;
}

} // namespace

int copy_process(pCopy x, std::uint64_t *files, std::uint64_t *bytes, int stop_on_fail) {
  if (x == nullptr) return 0;
  if (bytes != nullptr) *bytes = 0;
  if (files != nullptr) *files = 0;
  imsg("Processing copy script...");
  for (std::uint32_t index = 0; index < copy_count(x); ++index) {
    dmsg("Processing [%d:%s->%s,%s,%s,%s]", static_cast<int>(x->list[index].type),
         or_empty(copy_src(x, index)), or_empty(copy_dst(x, index)), or_empty(copy_not(x, index)),
         or_empty(copy_control(x, index)), or_empty(copy_control_cmp(x, index)));
    // What an earlier command left in errno is no reason of this one's failure.
    errno = 0;
    const int result = copy_do(x, index, bytes);
    if (result == 0 && stop_on_fail != 0) {
      imsg("Stop on fail set, stopping...");
      return 0;
    }
    if (result == 0) imsg("Stop on fail NOT set, continuing...");
    else if (result != -1 && files != nullptr) *files += static_cast<std::uint64_t>(result);
  }
  imsg("Copy script completed successfully");
  return 1;
}

int copy_do(pCopy x, std::uint32_t index, std::uint64_t *bytes) {
  if (index >= copy_count(x)) return 0;
  if (x->list[index].cut) {
    cerror("Line too long, nothing done for '%s'", or_empty(copy_src(x, index)));
    return 0;
  }
  if (!gate_open(x, index)) {
    dmsg("Doing nothing due to controlling setting");
    return -1;
  }
  try {
    return copy_command(x->list[index].type).run(x, index, bytes);
  } catch (const std::bad_alloc &) {
    return out_of_memory(x, index);
  }
}

int copy_files(pCopy x, std::uint32_t index, std::uint64_t *bytes) {
  Operands source;
  if (!split_source(x, index, source)) return 0;
  const std::vector<std::string> destinations = find_destinations(x, index);
  if (destinations.empty()) {
    cerror("No destination directories found");
    return 0;
  }
  Filling filling;
  for (const std::string &directory : destinations) filling.add(directory.c_str());
  int count = 0;
  for (const std::string &directory : destinations)
    count += copy_into(x, index, source, directory.c_str(), bytes);
  return count;
}

int copy_remove(pCopy x, std::uint32_t index) {
  Operands source;
  if (!split_source(x, index, source)) return 0;
  const char *exclude = copy_not(x, index);
  const bool trees = x->list[index].type == CType::RmDir;
  int count = 0;
  for (File entry : Entries{source.path, source.file}) {
    if (excluded(entry, exclude)) continue;
    if (!is_dir(*entry)) count += file_remove_entry(entry);
    else if (trees) count += file_rmdir_entry(entry, exclude);
  }
  return count;
}

int copy_mkdir(pCopy x, std::uint32_t index) { return file_mkdir(copy_src(x, index), 1); }

int copy_chown(pCopy x, std::uint32_t index) {
  Operands source;
  if (!split_source(x, index, source)) return 0;
  char owner[OperandSize] = "";
  ini_replace(x->ini, copy_dst(x, index), owner, sizeof owner - 1);
  char *colon = std::strchr(owner, ':');
  const char *group = colon != nullptr ? colon + 1 : owner;
  if (colon != nullptr) *colon = '\0';
  const ::uid_t uid = file_getuid(owner);
  dmsg("Found user id for '%s'=%d", owner, static_cast<int>(uid));
  const ::gid_t gid = file_getgid(group);
  dmsg("Found group id for '%s'=%d", group, static_cast<int>(gid));
  return dochown(source.path, source.file, copy_not(x, index), uid, gid);
}

int copy_chmod(pCopy x, std::uint32_t index) {
  Operands source;
  if (!split_source(x, index, source)) return 0;
  char digits[OperandSize];
  scpy(digits, copy_dst(x, index), sizeof digits);
  std::uint32_t mode = 0;
  for (const char *c = digits; *c != '\0'; ++c)
    mode = mode * 8 + static_cast<std::uint32_t>(*c - '0');
  return dochmod(source.path, source.file, copy_not(x, index), mode);
}

int dochown(const char *path, const char *file, const char *exclude, ::uid_t uid, ::gid_t gid) {
  return change_each(Entries{path, file}, exclude, chown_words,
                     [=](File entry) { return file_chown(entry, uid, gid); });
}

int dochmod(const char *path, const char *file, const char *exclude, ::mode_t mode) {
  return change_each(Entries{path, file}, exclude, chmod_words,
                     [=](File entry) { return file_chmod(entry, mode); });
}

int copy_write_ini(pCopy x, std::uint32_t index) {
  const char *source = copy_src(x, index);
  const char *dest = copy_dst(x, index);
  const Stream in{s_fopen(source, "r")};
  char piece[TemplateLineSize];
  // The whole is tried before the target is emptied.
  const bool good = in && is_text(in.get(), piece);
  const std::size_t size = good ? read_piece(in.get(), piece, sizeof piece) : 0;
  if (!good || std::ferror(in.get()) != 0) {
    if (index < copy_count(x)) cerror("Error reading ini file '%s'", source);
    return 0;
  }
  const bool onto_itself = same_file(source, dest) != 0;
  Stream out{onto_itself ? nullptr : s_fopen(dest, "w")};
  if (!out) {
    if (onto_itself) errno = EINVAL;
    cerror("Error creating ini file '%s'", dest);
    return 0;
  }
  imsg("Writing INI file '%s' to '%s'", source, dest);
  return write_lines(x, index, in.get(), std::move(out), piece, size);
}

int copy_rename(pCopy x, std::uint32_t index) {
  if (index >= copy_count(x)) return 0;
  const char *source = or_empty(copy_src(x, index));
  const char *dest = or_empty(copy_dst(x, index));
  if (std::rename(source, dest) == 0) return 1;
  cerror("Error renaming '%s'->'%s', %s", source, dest, std::strerror(errno));
  return 0;
}

int copy_exist(pCopy x, std::uint32_t index) {
  if (index >= copy_count(x)) return 0;
  const char *found = file_exist(copy_src(x, index)) != 0 ? "true" : "false";
  ini_add_name(x->ini, copy_dst(x, index), found);
  return 1;
}

int copy_seterror(pCopy x, std::uint32_t index) {
  if (index >= copy_count(x)) return 0;
  if (isfalse(ini_value_name(x->ini, copy_src(x, index))) == 0) return 1;
  last_error = x->list[index].dest;
  return 0;
}

int copy_wfile(pCopy x, std::uint32_t index) {
  if (index >= copy_count(x)) return 0;
  const char *file = copy_src(x, index);
  if (write_text(file, or_empty(ini_value_or_text(x->ini, copy_dst(x, index)))) != 0) return 1;
  cerror("Failed to write (%s)", file);
  return 0;
}

int copy_rfile(pCopy x, std::uint32_t index) {
  if (index >= copy_count(x)) return 0;
  std::string text;
  if (read_text(copy_src(x, index), text) == 0) {
    cerror("Failed to read (%s)", copy_src(x, index));
    return 0;
  }
  if (!text.empty()) ini_add_name(x->ini, copy_dst(x, index), text.c_str());
  return 1;
}

const char *copy_error() { return or_empty(text_of(last_error)); }

} // namespace installer
