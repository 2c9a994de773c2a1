#include "installer/array.h"
#include "installer/linklist.h"

#include <gtest/gtest.h>

#include <string>

namespace installer::test {

TEST(Array, InsertsGrowsAndReleases) {
  auto *a = array_init<std::string>();
  const auto add = [&a](char name, std::int32_t pos) {
    EXPECT_EQ(array_add_num(a, new std::string(1, name), pos), 1) << name;
    return a->current;
  };
  add('b', 0), add('d', 1);
  EXPECT_EQ(*array_get_num(a, 0), "b");
  EXPECT_EQ(add('c', 1), 2);
  EXPECT_EQ(add('a', 0), 3);
  EXPECT_EQ(add('e', 4), 3);
  std::string unused, read;
  for (const std::int32_t outside : {6, -1}) EXPECT_EQ(array_add_num(a, &unused, outside), 0);
  for (const char *next : {"d", "e"}) EXPECT_EQ(*array_get(a), next);
  EXPECT_EQ(array_get(a), nullptr);
  EXPECT_EQ(array_get_num(a, 5), nullptr);
  for (int size = 6; size <= 21; ++size) {
    add('+', 5);
    EXPECT_EQ(a->size, (size + 9) / 10 * 10);
  }
  for (auto *p = array_get_num(a, 0); p != nullptr; p = array_get(a)) read += *p;
  EXPECT_EQ(read, "abcde++++++++++++++++");
  array_free_dealloc(&a);
  EXPECT_EQ(a, nullptr);
  EXPECT_EQ(array_add(a, &unused), 0);
  EXPECT_EQ(array_get(a), nullptr);
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
  EXPECT_EQ(l, nullptr);
  EXPECT_EQ(list_get(l), nullptr);
  EXPECT_EQ(list_del(l), nullptr);
}

} // namespace installer::test
