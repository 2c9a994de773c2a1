#pragma once

// Reading a product's folder: its text files through the loaders of installer, which hand over what
// is wrong with a line.

#include "check/model.h"

#include <string>
#include <vector>

namespace installer::check {

/// The names of the products in a folder, in order: each NAME.dat that has at least one file of its
/// name beside it, or else all. The cause when the folder cannot be read.
[[nodiscard]] Cause find_products(const std::string &folder, std::vector<std::string> &names);

/// Reads the four files of the product `name` of the folder into an empty `product`. An empty
/// `folder` is the working directory.
void read_files(const std::string &folder, const std::string &name, Product &product);

/// The sink for what is wrong with a file: keeps it, and notes what then cannot be known.
[[nodiscard]] Faults fault_sink(Product &product);
/// False, with a fault, when the folder has no such file.
bool require_file(Product &product, const std::string &name);
/// The names of the folder that may have been meant for `name`: of the same extension, letter case
/// ignored. They last as long as the product.
[[nodiscard]] Nearest likely_names(const Product &product, const std::string &name);
/// The path of a file of the folder, as it is reached from the working directory.
[[nodiscard]] std::string in_folder(const std::string &folder, const std::string &name);

} // namespace installer::check
