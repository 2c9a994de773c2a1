#include "preview/view.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace installer::preview {

namespace {

constexpr const char *Rights =
    "it takes root, or an ordinary user who may have name spaces (sysctl "
    "user.max_user_namespaces, kernel.unprivileged_userns_clone=1, "
    "kernel.apparmor_restrict_unprivileged_userns=0); a container needs the right SYS_ADMIN";
constexpr ::mode_t Private = 0700;

/// Everything that takes part in making a view.
struct Making {
  View &view;
  std::vector<Mount> mounts{};
  std::vector<std::string> points{}; ///< all mount points of the machine
  std::size_t next = 0;              ///< of `mounts`
  int cause = 0;                     ///< why an overlay was refused last
  ::uid_t user = ::geteuid();        ///< as the machine knows it, and so is the group
  ::gid_t group = ::getegid();
};

/// What stands for the mount at `point`: the directory `source` of the private place; "": the mount
/// itself, but read-only.
struct StandIn {
  std::string point;
  std::string source;
  std::uint64_t attributes;
};

std::string proc_path(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

bool attach(int tree, int place) {
  return ::move_mount(tree, "", place, "", MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH) == 0;
}

Descriptor copy_tree(int place, unsigned flags = 0) {
  return Descriptor{
      ::open_tree(place, "", OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_EMPTY_PATH | flags)};
}

bool change(int tree, std::uint64_t set, unsigned flags = 0, std::uint64_t clear = 0) {
  struct ::mount_attr attributes = {};
  attributes.attr_set = set;
  attributes.attr_clr = clear;
  return ::mount_setattr(tree, "", AT_EMPTY_PATH | flags, &attributes, sizeof attributes) == 0;
}

// ---- Doors ----

/// What stands for a file of a type that leads to somebody else's process: one that leads nowhere.
struct Door {
  ::mode_t type;
  const char *place;
  ::mode_t made;
};
constexpr Door doors[] = {
    {S_IFSOCK, "socket",   S_IFSOCK | 0666},
    {S_IFIFO,  "pipe",     S_IFIFO | 0666 },
    {S_IFCHR,  "terminal", S_IFREG        }, // one of the machine's, as containers have it for a console
};

std::string door_for(::mode_t type) {
  for (const Door &door : doors)
    if (door.type == type) return door.place;
  return {};
}

bool is_door(const std::string &source) {
  return std::ranges::any_of(doors, [&source](const Door &door) { return door.place == source; });
}

bool make_doors(int place) {
  return std::ranges::all_of(doors, [place](const Door &door) {
    return ::mknodat(place, door.place, door.made, 0) == 0 &&
           ::fchmodat(place, door.place, door.made & 07777U, 0) == 0; // whatever the umask is
  });
}

// ---- Name spaces ----

bool write_text_file(const char *path, const std::string &text) {
  const Descriptor file{::open(path, O_WRONLY | O_CLOEXEC)};
  return file &&
         ::write(file.get(), text.data(), text.size()) == static_cast<::ssize_t>(text.size());
}

std::string identity(unsigned id) { return std::to_string(id) + " " + std::to_string(id) + " 1"; }

/// A user stays who it is: the command must see its own name, and get no rights by the view.
Refused enter_user_space(Making &making) {
  making.view.user = true;
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
    return refusal(std::string{"no name space: "} + Rights);
  if (!write_text_file("/proc/self/setgroups", "deny") ||
      !write_text_file("/proc/self/uid_map", identity(making.user)) ||
      !write_text_file("/proc/self/gid_map", identity(making.group)))
    return refusal("no user name space: /proc takes no maps of users");
  return {};
}

/// In a changed root, the root directory has to become a mount for the view to take its place.
bool make_root_a_mount() {
  struct ::statx info = {};
  if (::statx(AT_FDCWD, "/", 0, STATX_TYPE, &info) != 0) return false;
  if ((info.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0) return true;
  // From the root directory ".." leads to what is mounted on it.
  return ::mount("/", "/", nullptr, MS_BIND | MS_REC, nullptr) == 0 && ::chdir("/..") == 0 &&
         ::chroot(".") == 0;
}

Refused enter_name_spaces(Making &making) {
  if (::unshare(CLONE_NEWNS) != 0) {
    if (errno != EPERM) return refusal(std::string{"no mount name space: "} + Rights);
    if (Refused refused = enter_user_space(making)) return refused;
  }
  if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 && errno != EINVAL)
    return refusal("mounts cannot be made private");
  if (!make_root_a_mount()) return refusal("the root directory cannot be mounted");
  if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return refusal(std::string{"mounts cannot be made private: "} + Rights);
  return {};
}

// ---- The private place ----

/// A copy of the directory's mount that stays writable, for nothing else on the machine does.
Refused take_kept(const char *keep, Descriptor &kept) {
  const Descriptor directory{::open(keep, O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
  if (!directory) return refusal(std::string{keep});
  kept = copy_tree(directory.get(), AT_RECURSIVE);
  if (!kept)
    return refusal(std::string{keep} +
                   ": its mount cannot be copied (Linux 5.12 or newer is needed)");
  return {};
}

Descriptor new_file_system(const char *type, const char *option, const char *value) {
  const Descriptor fs{::fsopen(type, FSOPEN_CLOEXEC)};
  if (!fs || ::fsconfig(fs.get(), FSCONFIG_SET_STRING, option, value, 0) != 0 ||
      ::fsconfig(fs.get(), FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) != 0)
    return Descriptor{};
  return Descriptor{::fsmount(fs.get(), FSMOUNT_CLOEXEC, 0)};
}

Descriptor new_memory() { return new_file_system("tmpfs", "mode", "0700"); }

/// Each of these has terminals of its own.
Descriptor new_terminals() { return new_file_system("devpts", "ptmxmode", "0666"); }

/// The place is mounted over the root directory, which exists on every machine. This process keeps
/// the directory below; everything in the place is reached through its descriptor.
Refused make_place(View &view, Descriptor kept) {
  const Descriptor root{::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC)};
  if (!change(root.get(), MOUNT_ATTR_RDONLY, AT_RECURSIVE))
    return refusal("the machine's mounts cannot be made read-only (Linux 5.12 or newer is needed)");
  view.place = new_memory();
  if (!view.place || !attach(view.place.get(), root.get()))
    return refusal("no private memory file system");
  for (const char *name : {"view", "machine", "both", "changed", "skeleton", "terminals"})
    if (!tree_make(view.place.get(), name, Private)) return refusal(name);
  if (!make_doors(view.place.get())) return refusal("no sockets of the view's own");
  if (!attach(new_terminals().get(), tree_open(view.place.get(), "terminals", O_PATH).get()))
    return refusal("no terminals of the view's own");
  view.keeps = static_cast<bool>(kept);
  if (view.keeps && !attach(kept.get(), tree_open(view.place.get(), "changed", O_PATH).get()))
    return refusal("the kept layers cannot be mounted");
  return {};
}

// ---- Layers ----

std::string side_path(int number, Side side) {
  const std::string name = std::to_string(number);
  if (side == Side::Machine) return "machine/" + name;
  return side == Side::Both ? "both/" + name : "changed/" + name + "/files";
}

/// True when this user may write to the entry, on a mount that could be written to.
bool may_write(int entry) {
  return ::faccessat(entry, "", W_OK, AT_EACCESS | AT_EMPTY_PATH) == 0 || errno == EROFS;
}

/// The root of an overlay has the owner and mode of its changed side. A user cannot give it to its
/// owner, so there the mode must not give more rights than there are on the machine.
bool make_changed(const View &view, int machine, Layer &layer) {
  const int place = view.place.get();
  const std::string folder = "changed/" + std::to_string(layer.number);
  const std::string files = side_path(layer.number, Side::Changed);
  struct ::stat info = {};
  if (::fstat(machine, &info) != 0 || !tree_make(place, folder, Private) ||
      !tree_make(place, folder + "/scratch", Private) || !tree_make(place, files, Private))
    return false;
  const bool owned = ::fchownat(place, files.c_str(), info.st_uid, info.st_gid, 0) == 0;
  ::mode_t mode = info.st_mode & 07777;
  if (view.user && !may_write(machine)) mode &= ~0222U;
  return (owned || view.user) && ::fchmodat(place, files.c_str(), mode, 0) == 0 &&
         ::fstatat(place, files.c_str(), &layer.start, 0) == 0;
}

/// Which copies the view makes is for the comparison to understand: whole files only, and moved
/// directories where the kernel can note them down.
constexpr std::pair<const char *, const char *> overlay_options[] = {
    {"metacopy", "off"  },
    {"index",    "off"  },
    {"volatile", nullptr},
};

bool set_option(int fs, const char *name, const char *value) {
  const auto command = value != nullptr ? FSCONFIG_SET_STRING : FSCONFIG_SET_FLAG;
  return ::fsconfig(fs, command, name, value, 0) == 0;
}

/// The directories are named by descriptor: their names may hold what options are separated by.
Descriptor new_overlay(const View &view, int number, std::uint64_t attributes) {
  const Descriptor fs{::fsopen("overlay", FSOPEN_CLOEXEC)};
  if (!fs) return Descriptor{};
  const std::string place = proc_path(view.place.get()) + "/";
  const std::string scratch = "changed/" + std::to_string(number) + "/scratch";
  for (const auto &[name, value] : overlay_options)
    if (!set_option(fs.get(), name, value)) return Descriptor{};
  if (!(view.user ? set_option(fs.get(), "userxattr", nullptr)
                  : set_option(fs.get(), "redirect_dir", "on")))
    return Descriptor{};
  if (!set_option(fs.get(), "lowerdir", (place + side_path(number, Side::Machine)).c_str()) ||
      !set_option(fs.get(), "upperdir", (place + side_path(number, Side::Changed)).c_str()) ||
      !set_option(fs.get(), "workdir", (place + scratch).c_str()) ||
      ::fsconfig(fs.get(), FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) != 0)
    return Descriptor{};
  return Descriptor{::fsmount(fs.get(), FSMOUNT_CLOEXEC, static_cast<unsigned>(attributes))};
}

/// Makes the overlay and mounts it in the place, where it never gets mounts below it.
bool add_layer(View &view, const Mount &mount, const Descriptor &machine) {
  const int place = view.place.get();
  Layer layer{view.attempts++, mount, {}};
  const std::string lower = side_path(layer.number, Side::Machine);
  const std::string both = side_path(layer.number, Side::Both);
  if (!tree_make(place, lower, Private) || !tree_make(place, both, Private) ||
      !attach(machine.get(), tree_open(place, lower, O_PATH).get()) ||
      !make_changed(view, tree_open(place, lower, O_PATH).get(), layer))
    return false;
  const Descriptor overlay = new_overlay(view, layer.number, mount.attributes);
  if (!overlay || !attach(overlay.get(), tree_open(place, both, O_PATH).get())) return false;
  view.layers.push_back(std::move(layer));
  return true;
}

::mode_t type_of(int fd) {
  struct ::stat info = {};
  return ::fstat(fd, &info) == 0 ? info.st_mode & S_IFMT : 0;
}

/// A file system, or a directory of it, that is mounted in several places is one in the view too.
/// The directory in the place that shows the mount; "" for none.
std::string share_layer(const Making &making, const Mount &mount, ::mode_t type) {
  if (mount.apart) return {};
  for (const Layer &layer : making.view.layers) {
    const Mount &other = layer.mount;
    if (other.device != mount.device || !tree_within(mount.root, other.root)) continue;
    const std::size_t skipped = other.root == "/" ? 0 : other.root.size();
    std::string source = side_path(layer.number, Side::Both) + mount.root.substr(skipped);
    const Descriptor found = tree_open(making.view.place.get(), source, O_PATH);
    if (found && type_of(found.get()) == type) return source;
  }
  return {};
}

// ---- Directories that cannot be taken whole ----

/// True when the machine has something mounted below `path`.
bool has_mount_below(const Making &making, const std::string &path) {
  return std::ranges::any_of(making.points, [&path](const std::string &point) {
    return point != path && tree_within(point, path);
  });
}

bool is_mount(const Making &making, const std::string &path) {
  const auto here = [&path](const Mount &mount) { return mount.point == path; };
  const auto fresh = [&path](const Fresh &other) { return other.point == path; };
  return std::ranges::any_of(making.mounts, here) || std::ranges::any_of(making.view.fresh, fresh);
}

void copy_link(int link, int place, const std::string &path) {
  std::array<char, PATH_MAX> target{};
  if (::readlinkat(link, "", target.data(), target.size() - 1) > 0)
    static_cast<void>(::symlinkat(target.data(), place, path.c_str()) == 0);
}

/// One entry of a directory that is rebuilt: a link as it is, a directory with mounts below it
/// rebuilt as well, anything else as a mount of its own.
void rebuild_entry(Making &making, const Mount &mount, const std::string &sub,
                   const std::string &skeleton, std::vector<std::string> &waiting) {
  const int place = making.view.place.get();
  Mount piece = mount;
  piece.id = 0;
  piece.point = tree_join(mount.point, sub);
  piece.root = tree_join(mount.root, sub);
  struct ::stat info = {};
  const Descriptor entry = tree_open(AT_FDCWD, piece.point, O_PATH | O_NOFOLLOW);
  if (!entry || ::fstat(entry.get(), &info) != 0) return;
  const std::string target = skeleton + "/" + sub;
  if (S_ISLNK(info.st_mode)) {
    copy_link(entry.get(), place, target);
    return;
  }
  if (!S_ISDIR(info.st_mode)) ::mknodat(place, target.c_str(), S_IFREG | 0600, 0);
  else if (!tree_make(place, target, info.st_mode & 07777)) return;
  if (is_mount(making, piece.point)) return;
  if (S_ISDIR(info.st_mode) && has_mount_below(making, piece.point)) waiting.push_back(sub);
  else making.mounts.push_back(std::move(piece));
}

/// Where the mounts below a file system may not be taken off it, its directories that have them are
/// rebuilt in memory, and everything in these becomes a mount of its own.
std::string rebuild(Making &making, const Mount &mount) {
  const int place = making.view.place.get();
  std::string skeleton = "skeleton/" + std::to_string(making.next);
  const Descriptor own = tree_open(AT_FDCWD, mount.point, O_PATH);
  struct ::stat info = {};
  if (::fstat(own.get(), &info) != 0 || !tree_make(place, skeleton, info.st_mode & 07777))
    return {};
  std::vector<std::string> waiting{""};
  while (!waiting.empty()) {
    const std::string folder = std::move(waiting.back());
    waiting.pop_back();
    const std::string path = tree_join(mount.point, folder);
    const Descriptor directory = tree_open_directory(AT_FDCWD, path);
    if (!directory) continue;
    if (may_write(directory.get())) making.view.read_only.push_back(path);
    for (const std::string &name : tree_names(directory.get()))
      rebuild_entry(making, mount, tree_join(folder, name), skeleton, waiting);
  }
  return skeleton;
}

// ---- The mounts of the view ----

/// The mount as it is, but read-only. What is below a mount that cannot be taken alone comes along,
/// and the view's own mounts come over it.
Descriptor bare_mount(int entry) {
  Descriptor tree = copy_tree(entry);
  if (!tree) tree = copy_tree(entry, AT_RECURSIVE);
  if (tree && !change(tree.get(), MOUNT_ATTR_RDONLY, AT_RECURSIVE)) return Descriptor{};
  return tree;
}

/// Devices and the kernel's settings are the machine's own, and read-only; a user's overlay could
/// not even open a device.
bool stays(const Mount &mount) {
  return mount.point == "/dev" || tree_within(mount.point, "/sys") ||
         mounts_are_kernel_made(mount.type);
}

/// The entry of the place that stands for a mount; "" for the mount itself. One that is read-only
/// has a layer too: through a layer, no socket and no pipe leads anywhere.
std::string stand_in(Making &making, const Mount &mount) {
  const Descriptor entry = tree_open(AT_FDCWD, mount.point, O_PATH | O_NOFOLLOW);
  const ::mode_t type = type_of(entry.get());
  if (mount.type == "devpts") return type == S_IFDIR ? "terminals" : door_for(type);
  if (stays(mount)) return {};
  if (std::string shared = share_layer(making, mount, type); !shared.empty()) return shared;
  if (type == S_IFSOCK || type == S_IFIFO) return door_for(type);
  if (type == S_IFDIR) {
    const Descriptor machine = copy_tree(entry.get());
    if (!machine && errno == EINVAL && has_mount_below(making, mount.point))
      return rebuild(making, mount);
    if (machine && add_layer(making.view, mount, machine))
      return side_path(making.view.layers.back().number, Side::Both);
    making.cause = errno;
  }
  if (!mount.read_only && may_write(entry.get())) making.view.read_only.push_back(mount.point);
  return {};
}

/// The file systems that hold others first: those can then be shown from their layers.
std::vector<StandIn> make_stand_ins(Making &making) {
  std::vector<StandIn> all;
  std::ranges::stable_sort(making.mounts, {}, [](const Mount &mount) { return mount.root.size(); });
  for (making.next = 0; making.next < making.mounts.size(); ++making.next) {
    const Mount mount = making.mounts[making.next];
    StandIn next{mount.point, stand_in(making, mount), mount.attributes};
    if (mount.read_only || next.source.starts_with("skeleton") || is_door(next.source))
      next.attributes |= MOUNT_ATTR_RDONLY;
    all.push_back(std::move(next));
  }
  std::ranges::stable_sort(all, {}, &StandIn::point);
  return all;
}

/// A shared layer has the attributes of its first mount, which this one may not have.
Descriptor mount_of(const View &view, const StandIn &stand_in) {
  constexpr std::uint64_t others = MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV | MOUNT_ATTR_NOEXEC;
  if (stand_in.source.empty())
    return bare_mount(tree_open(AT_FDCWD, stand_in.point, O_PATH | O_NOFOLLOW).get());
  Descriptor tree = copy_tree(tree_open(view.place.get(), stand_in.source, O_PATH).get());
  const std::uint64_t own = stand_in.attributes & (others | MOUNT_ATTR_RDONLY);
  if (tree && !change(tree.get(), own, 0, others & ~own)) return Descriptor{};
  return tree;
}

Refused attach_in_view(const View &view, const StandIn &stand_in) {
  const Descriptor tree = mount_of(view, stand_in);
  const Descriptor target =
      tree_open(view.place.get(), "view" + stand_in.point, O_PATH | O_NOFOLLOW);
  // What this user cannot list was not rebuilt, so that mounts below it have no place.
  if (!target && view.user) return {};
  if (tree && target && attach(tree.get(), target.get())) return {};
  return refusal(stand_in.point + " cannot be mounted in the view");
}

/// Closes the doors in a file system that is shown as it is.
Refused close_doors(const View &view, const std::string &point) {
  const int place = view.place.get();
  struct ::stat top = {}, info = {};
  std::vector<std::string> waiting{point};
  static_cast<void>(::fstat(tree_open(place, "view" + point, O_PATH).get(), &top));
  while (!waiting.empty()) {
    const std::string folder = std::move(waiting.back());
    waiting.pop_back();
    const Descriptor directory = tree_open_directory(place, "view" + folder);
    for (const std::string &name : tree_names(directory.get())) {
      const std::string path = tree_join(folder, name);
      if (::fstatat(directory.get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) continue;
      const ::mode_t type = info.st_mode & S_IFMT;
      if (type == S_IFDIR && info.st_dev == top.st_dev) waiting.push_back(path);
      if (type != S_IFSOCK && type != S_IFIFO) continue;
      if (Refused refused = attach_in_view(view, {path, door_for(type), MOUNT_ATTR_RDONLY}))
        return refused;
    }
  }
  return {};
}

/// In the order of their mount points, so that each finds the one that it lies on.
Refused attach_all(const View &view, const std::vector<StandIn> &all) {
  for (const StandIn &stand_in : all) {
    // What has vanished meanwhile, a scratch file of somebody's say, takes no part.
    if (!tree_open(AT_FDCWD, stand_in.point, O_PATH | O_NOFOLLOW) && errno == ENOENT) continue;
    if (Refused refused = attach_in_view(view, stand_in)) return refused;
    if (stand_in.point == "/dev" && stand_in.source.empty())
      if (Refused refused = close_doors(view, stand_in.point)) return refused;
  }
  return {};
}

/// Nothing below the machine's is shown.
void take_fresh(Making &making) {
  std::vector<Fresh> &all = making.view.fresh;
  for (const Mount &mount : making.mounts) {
    making.points.push_back(mount.point);
    if ((mount.type == "proc" || mount.type == "mqueue") && mount.root == "/")
      all.push_back({mount.type, mount.point});
  }
  std::erase_if(making.mounts, [&all](const Mount &mount) {
    const auto holds = [&mount](const Fresh &fresh) {
      return tree_within(mount.point, fresh.point);
    };
    return mount.type == "proc" || mount.type == "mqueue" || std::ranges::any_of(all, holds);
  });
}

/// Adds a mount of its own for a directory of `mount`.
void take_apart(Making &making, const Mount &mount, const std::string &point) {
  const auto there = [&point](const Mount &other) { return other.point == point; };
  if (std::ranges::any_of(making.mounts, there)) return;
  const std::size_t skipped = mount.point == "/" ? 1 : mount.point.size() + 1;
  Mount piece = mount;
  piece.id = 0;
  piece.apart = true;
  piece.point = point;
  piece.root = tree_join(mount.root, point.substr(skipped));
  making.mounts.push_back(std::move(piece));
}

/// On the way from a mount down to `path`, each directory that this user may write to, unless the
/// layer above can copy the way to it: that has the user's own directories only.
void take_way(Making &making, const Mount &mount, const std::string &path) {
  bool barred = true;
  std::size_t end = mount.point == "/" ? 0 : mount.point.size();
  while (end != std::string::npos) {
    end = path.find('/', end + 1);
    const std::string part = path.substr(0, end);
    struct ::stat info = {};
    const Descriptor entry = tree_open(AT_FDCWD, part, O_PATH | O_DIRECTORY);
    if (!entry || ::fstat(entry.get(), &info) != 0) return;
    if (info.st_uid != making.user || info.st_gid != making.group) barred = true;
    if (!barred || !may_write(entry.get())) continue;
    take_apart(making, mount, part);
    barred = false;
  }
}

/// Directories of others where this user may nevertheless make files, or own some: a layer of their
/// own can be changed there, while one higher up could not copy the way to them.
void take_user_folders(Making &making, const std::string &folder) {
  const std::vector<Mount> mounts = making.mounts;
  const std::string home = or_empty(std::getenv("HOME"));
  for (const std::string &path : {folder, home, std::string{"/tmp"}, std::string{"/var/tmp"}}) {
    if (!path.starts_with('/') || path == "/") continue;
    const auto within = [&path](const Mount &mount) { return tree_within(path, mount.point); };
    const auto found = std::find_if(mounts.rbegin(), mounts.rend(), within);
    if (found != mounts.rend() && found->point != path && !found->read_only)
      take_way(making, *found, path);
  }
}

Refused make_mounts(Making &making, const std::string &folder) {
  take_fresh(making);
  if (making.view.user) {
    take_user_folders(making, folder);
    std::ranges::sort(making.mounts, {}, &Mount::point);
  }
  const std::vector<StandIn> all = make_stand_ins(making);
  if (making.view.layers.empty() && making.cause != 0)
    return Refusal{"no overlay can be mounted: that takes the kernel's overlay file system "
                   "(modprobe overlay), "
                   "and with -keep a file system that can hold its layers",
                   making.cause};
  return attach_all(making.view, all);
}

Refused prepare_keep(const char *keep) {
  if (::mkdir(keep, Private) != 0 && errno != EEXIST) return refusal(keep);
  const Descriptor directory{::open(keep, O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
  if (!directory) return refusal(keep);
  if (!tree_names(directory.get()).empty())
    return Refusal{
        std::string{keep} + ": is not empty, and would be mixed up with this run's files", 0};
  return {};
}

/// Removes a layer that has changed nothing.
void remove_unused(const View &view, const std::string &folder) {
  if (::unlinkat(view.place.get(), (folder + "/files").c_str(), AT_REMOVEDIR) == 0)
    ::unlinkat(view.place.get(), folder.c_str(), AT_REMOVEDIR);
}

} // namespace

Refused view_open(View &view, const char *keep, const std::string &folder) {
  if (::access("/proc/self/mountinfo", R_OK) != 0) return refusal("/proc is not mounted");
  Making making{view};
  Descriptor kept;
  if (keep != nullptr)
    if (Refused refused = prepare_keep(keep)) return refused;
  if (Refused refused = enter_name_spaces(making)) return refused;
  if (keep != nullptr)
    if (Refused refused = take_kept(keep, kept)) return refused;
  making.mounts = mounts_visible();
  if (Refused refused = make_place(view, std::move(kept))) return refused;
  if (Refused refused = make_mounts(making, folder)) return refused;
  const Descriptor root = tree_open(view.place.get(), "view", O_PATH | O_DIRECTORY);
  if (!root || ::fchdir(root.get()) != 0) return refusal("the root of the view");
  return {};
}

Descriptor view_terminals(const View &view) {
  return tree_open(view.place.get(), "terminals", O_PATH | O_DIRECTORY);
}

Descriptor view_side(const View &view, const Layer &layer, Side side) {
  return tree_open_directory(view.place.get(), side_path(layer.number, side));
}

void view_close(const View &view) {
  if (!view.keeps) return;
  const int place = view.place.get();
  for (int number = 0; number < view.attempts; ++number) {
    const std::string folder = "changed/" + std::to_string(number);
    tree_remove(place, folder + "/scratch");
    remove_unused(view, folder);
  }
  for (const Layer &layer : view.layers) // fails where the layer is gone
    static_cast<void>(!::symlinkat(layer.mount.point.c_str(), place,
                                   ("changed/" + std::to_string(layer.number) + "/mount").c_str()));
}

} // namespace installer::preview
