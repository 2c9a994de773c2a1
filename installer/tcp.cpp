#include "installer/tcp.h"

#include "installer/lib.h"
#include "installer/log.h"

#include <cstring>

#include <unistd.h>

namespace installer {

char *tcp_hostname(char *name, unsigned size) {
  if (name == nullptr || size == 0) return name;
  if (::gethostname(name, size - 1) != 0) {
    emsg("Gethostname failed, %s", tcp_error());
    scpy(name, "127.0.0.1", size);
  }
  name[size - 1] = '\0';
  return name;
}

const char *tcp_error() { return std::strerror(errno); }

} // namespace installer
