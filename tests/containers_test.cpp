#include "installer/array.h"
#include "installer/linklist.h"

#include <gtest/gtest.h>

#include <string>

namespace installer {

TEST(Array, InsertsGrowsAndReleases) {
  auto *a = array_init<std::string>();
  const auto add = [&a](char name, std::int32_t pos) {
    return array_add_num(a, new std::string(1, name), pos);
  };
  EXPECT_TRUE(add('b', 0) == 1 && add('d', 1) == 1 && *array_get_num(a, 0) == "b");
  EXPECT_TRUE(add('c', 1) == 1 && a->current == 2 && add('a', 0) == 1 && a->current == 3);
  EXPECT_TRUE(add('e', 4) == 1 && a->current == 3 && *array_get(a) == "d");
  std::string unused, read;
  EXPECT_EQ(array_add_num(a, &unused, 6) + array_add_num(a, &unused, -1), 0);
  EXPECT_TRUE(*array_get(a) == "e" && !array_get(a) && !array_get_num(a, 5));
  for (int i = 6; i <= 21; ++i) EXPECT_TRUE(add('+', 5) == 1 && a->size == (i + 9) / 10 * 10) << i;
  for (auto *p = array_get_num(a, 0); p != nullptr; p = array_get(a)) read += *p;
  EXPECT_EQ(read, "abcde++++++++++++++++");
  array_free_dealloc(&a);
  EXPECT_TRUE(a == nullptr && array_add(a, &unused) == 0 && array_get(a) == nullptr);
}

TEST(List, CursorKeepsItsElement) {
  auto *l = list_init<std::string>();
  std::string seen;
  const auto see = [&l, &seen] {
    for (auto *n = l->root; n != nullptr; n = n->next) {
      seen += (n->data != nullptr ? *n->data : "") + (n == l->current ? "|" : "");
      EXPECT_TRUE(n->next == nullptr || n->next->prev == n);
    }
    seen += (list_get(l) != nullptr ? *list_get(l) : "") + std::to_string(list_items(l)) + " ";
  };
  for (const char step : std::string{"-<>?bc?^a?<<?>>>>d?-?<<-?<-?--?e<f?"}) // letters are added
    if (step == '?') see();
    else if (step == '^') list_start(l);
    else if (step == '<') list_prev(l);
    else if (step == '>') list_next(l);
    else if (step == '-') delete list_del(l);
    else EXPECT_EQ(list_add(l, new std::string(1, step)), 1);
  EXPECT_EQ(seen, "|0 bc|2 a|bcb3 |abca3 abcd|4 abc|3 a|cc2 |cc1 |0 f|ee2 ");
  list_free_dealloc(&l);
  EXPECT_TRUE(l == nullptr && list_get(l) == nullptr && list_del(l) == nullptr);
}

} // namespace installer
