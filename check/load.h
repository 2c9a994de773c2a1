#pragma once

// Reading a product's folder: its text files through the loaders of installer, which hand over what
// is wrong with a line, and the comments that switch rules off.

#include "check/model.h"
#include "check/report.h"

#include <string>
#include <vector>

namespace installer::check {

/// The names of the products in a folder, in order: each NAME.dat that has at least one file of its
/// name beside it, or else all. The cause when the folder cannot be read.
[[nodiscard]] Cause find_products(const std::string &folder, std::vector<std::string> &names);

/// Reads the product `name` of the folder into an empty `product`. What a comment switches off goes
/// to `report`. An empty `folder` is the working directory.
void load_product(const std::string &folder, const std::string &name, Product &product,
                  Report &report);

} // namespace installer::check
