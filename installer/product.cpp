#include "installer/product.h"

#include "installer/shared.h"

namespace installer {

Text myname;
Text special_mode;
int automate = 0;

const char *product_name(Ini ini) {
  const char *product = ini_value_name(ini, ProductSetting);
  return product != nullptr ? product : "NONAME";
}

bool product_file(const char *ext, char (&path)[PathSize]) {
  char directory[PathSize];
  const bool found = currentdir(directory, sizeof directory) != nullptr;
  *path = '\0';
  if (!found && (errno == ERANGE || errno == ENAMETOOLONG)) return false;
  const std::string name = or_empty(text_of(myname)) + std::string{ext};
  return join_path(path, sizeof path, directory, name.c_str()) != 0;
}

} // namespace installer
