#include "preview/filter.h"

#include <cerrno>
#include <cstdint>
#include <memory>

#include <linux/sched.h>
#include <seccomp.h>
#include <sys/ioctl.h>

namespace installer::preview {

namespace {

struct ReleaseFilter {
  void operator()(void *filter) const noexcept { ::seccomp_release(filter); }
};
using Filter = std::unique_ptr<void, ReleaseFilter>;

#ifdef __s390__
constexpr unsigned CloneFlags = 1; // its arguments come in another order
#else
constexpr unsigned CloneFlags = 0;
#endif
/// The kernel looks at 32 bits of a request only.
constexpr std::uint64_t Request = 0xffffffff;

/// A call that is refused as a whole.
struct Call {
  int number;
  unsigned error;
};
constexpr Call calls[] = {
  // Name spaces and mounts. The flags of clone3 lie in memory; without it clone is used.
    {SCMP_SYS(clone3),            ENOSYS},
    {SCMP_SYS(setns),             EPERM },
    {SCMP_SYS(mount),             EPERM },
    {SCMP_SYS(umount2),           EPERM },
    {SCMP_SYS(pivot_root),        EPERM },
    {SCMP_SYS(open_tree),         EPERM },
    {SCMP_SYS(move_mount),        EPERM },
    {SCMP_SYS(fsopen),            EPERM },
    {SCMP_SYS(fspick),            EPERM },
    {SCMP_SYS(mount_setattr),     EPERM },
 // Files by number, past all mounts; the keys of the machine's users.
    {SCMP_SYS(open_by_handle_at), EPERM },
    {SCMP_SYS(add_key),           EPERM },
    {SCMP_SYS(request_key),       EPERM },
    {SCMP_SYS(keyctl),            EPERM },
};

/// A call that is refused where an argument has `value` in the bits of `mask`.
struct CallWith {
  int number;
  unsigned argument;
  std::uint64_t mask, value;
};
constexpr CallWith calls_with[] = {
    {SCMP_SYS(unshare), 0,          CLONE_NEWUSER, CLONE_NEWUSER},
    {SCMP_SYS(clone),   CloneFlags, CLONE_NEWUSER, CLONE_NEWUSER},
    {SCMP_SYS(ioctl),   1,          Request,       TIOCSTI      }, // typing at a terminal
    {SCMP_SYS(ioctl),   1,          Request,       TIOCLINUX    },
};

bool set_errno(int result) {
  if (result < 0) errno = -result;
  return result >= 0;
}

/// A machine that does not have the call is fine.
bool is_added(int result) { return set_errno(result == -EDOM ? 0 : result); }

bool refuse(void *filter, const Call &call) {
  return is_added(
      ::seccomp_rule_add_array(filter, SCMP_ACT_ERRNO(call.error), call.number, 0, nullptr));
}

bool refuse_with(void *filter, const CallWith &call) {
  const struct ::scmp_arg_cmp where = {call.argument, SCMP_CMP_MASKED_EQ, call.mask, call.value};
  return is_added(::seccomp_rule_add_array(filter, SCMP_ACT_ERRNO(EPERM), call.number, 1, &where));
}

/// Programs of 32 bits have numbers of their own. Any others that the kernel might know are refused
/// as a whole.
bool add_architectures(void *filter) {
  if (!set_errno(::seccomp_attr_set(filter, SCMP_FLTATR_ACT_BADARCH, SCMP_ACT_ERRNO(ENOSYS))))
    return false;
  const std::uint32_t native = ::seccomp_arch_native();
  if (native == SCMP_ARCH_X86_64) return set_errno(::seccomp_arch_add(filter, SCMP_ARCH_X86));
  if (native == SCMP_ARCH_AARCH64) return set_errno(::seccomp_arch_add(filter, SCMP_ARCH_ARM));
  return true;
}

} // namespace

bool filter_calls() {
  const Filter filter{::seccomp_init(SCMP_ACT_ALLOW)};
  if (!filter || !set_errno(::seccomp_attr_set(filter.get(), SCMP_FLTATR_CTL_NNP, 0)) ||
      !add_architectures(filter.get()))
    return false;
  for (const Call &call : calls)
    if (!refuse(filter.get(), call)) return false;
  for (const CallWith &call : calls_with)
    if (!refuse_with(filter.get(), call)) return false;
  return set_errno(::seccomp_load(filter.get()));
}

} // namespace installer::preview
