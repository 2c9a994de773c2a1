#include "preview/tree.h"

#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace installer::preview {

namespace {

/// The system takes paths below 4096 bytes; a longer one is walked in pieces.
constexpr std::size_t LongestPiece = 4000;

struct CloseStream {
  void operator()(::DIR *stream) const noexcept { ::closedir(stream); }
};

Descriptor open_piece(int root, const std::string &path, int flags) {
  struct ::open_how how = {};
  how.flags = static_cast<unsigned>(flags | O_CLOEXEC);
  how.resolve = RESOLVE_NO_SYMLINKS;
  const char *name = path.empty() ? "." : path.c_str();
  return Descriptor{static_cast<int>(::syscall(SYS_openat2, root, name, &how, sizeof how))};
}

} // namespace

Refusal refusal(const std::string &text) { return {text, errno}; }

Descriptor tree_open(int root, const std::string &path, int flags) {
  std::size_t begin = root != AT_FDCWD && path.starts_with('/') ? 1 : 0;
  Descriptor held;
  while (path.size() - begin > LongestPiece) {
    const std::size_t end = path.rfind('/', begin + LongestPiece);
    held =
        open_piece(held ? held.get() : root, path.substr(begin, end - begin), O_PATH | O_DIRECTORY);
    if (!held) return held;
    begin = end + 1;
  }
  return open_piece(held ? held.get() : root, path.substr(begin), flags);
}

Descriptor tree_open_directory(int root, const std::string &path) {
  return tree_open(root, path, O_RDONLY | O_DIRECTORY);
}

std::vector<std::string> tree_names(int directory) {
  std::vector<std::string> names;
  Descriptor own{::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
  const std::unique_ptr<::DIR, CloseStream> stream{own ? ::fdopendir(own.get()) : nullptr};
  if (!stream) return names;
  own.release();
  while (const struct ::dirent *entry = ::readdir(stream.get())) {
    const char *name = &entry->d_name[0];
    if (std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0) names.emplace_back(name);
  }
  return names;
}

std::size_t tree_count(int root, const std::string &path) {
  std::size_t count = 0;
  std::vector<std::string> waiting{path};
  while (!waiting.empty()) {
    const std::string folder = std::move(waiting.back());
    waiting.pop_back();
    const Descriptor directory = tree_open_directory(root, folder);
    if (!directory) continue;
    for (const std::string &name : tree_names(directory.get())) {
      struct ::stat info = {};
      ++count;
      if (::fstatat(directory.get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
          S_ISDIR(info.st_mode))
        waiting.push_back(tree_join(folder, name));
    }
  }
  return count;
}

void tree_remove(int root, const std::string &path) {
  std::vector<std::string> folders{path};
  for (std::size_t next = 0; next < folders.size(); ++next) {
    const std::string folder = folders[next];
    const Descriptor directory = tree_open_directory(root, folder);
    if (!directory) continue;
    for (const std::string &name : tree_names(directory.get()))
      if (::unlinkat(directory.get(), name.c_str(), 0) != 0)
        folders.push_back(tree_join(folder, name));
  }
  for (std::size_t left = folders.size(); left-- > 0;)
    ::unlinkat(root, folders[left].c_str(), AT_REMOVEDIR);
}

bool tree_make(int parent, const std::string &name, ::mode_t mode) {
  return ::mkdirat(parent, name.c_str(), mode) == 0 &&
         ::fchmodat(parent, name.c_str(), mode, 0) == 0; // whatever the umask is
}

std::string tree_join(const std::string &directory, const std::string &name) {
  if (directory.empty()) return name;
  return directory.ends_with('/') ? directory + name : directory + "/" + name;
}

bool tree_within(const std::string &path, const std::string &directory) {
  if (directory == "/" || path == directory) return true;
  return path.size() > directory.size() && path[directory.size()] == '/' &&
         path.starts_with(directory);
}

} // namespace installer::preview
