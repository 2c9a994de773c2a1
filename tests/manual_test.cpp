// The examples of the manual pages and of the README, run as they stand there.

#include "tests/support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include <sys/wait.h>

namespace installer::test {

/// Installs, upgrades and removes the product in the working directory on a view of the machine,
/// where one can be had: nothing may be left.
static void expect_round_trip(const char *product) {
#ifdef INSTALLER_PREVIEW
  const Start start{"installer-preview", nullptr, INSTALLER_PREVIEW};
  const Outcome outcome = run({"-round-trip", product}, {}, Via::Pipe, start);
  if (can_have_view()) EXPECT_EQ(outcome.status, 0) << outcome.console;
  else std::printf("%s", outcome.console.c_str());
#endif
}

TEST(Manual, ExampleProductRuns) {
  if (user_name().empty()) GTEST_SKIP() << "no user to own it";
  const TempDir folder;
  write_notes();
  expect_round_trip("./notes");
  const auto expect = [](const std::vector<std::string> &arguments, const char *text) {
    const std::string console = run(arguments, {}, Via::Pipe, {.name = "./notes"}).console;
    EXPECT_NE(console.find(text), std::string::npos) << console;
  };
  expect({"-automate"}, "[Install]\nCopying files[........]\nSuccess 42 bytes in 23 files ");
  Tree installed = read_tree("out");
  EXPECT_NE(installed["etc/notes.conf"].find("\nPort=8080\n"), std::string::npos);
  EXPECT_TRUE(installed.contains("bin/notesd"));
  EXPECT_FALSE(installed.contains("share/drafts/"));
  installed["etc/notes.conf"] = "the operator's";
  write_file("out/etc/notes.conf", "the operator's");
  expect({"-automate"}, "[Upgrade]\nCopying files[...]\nSuccess ");
  EXPECT_EQ(read_tree("out"), installed);
  expect({"-automate", "-special", "pages"}, "]\n Success 1 files done.\n");
  EXPECT_EQ(read_file("www/index.html"), "share/index.html");
  expect({"-automate", "-special", "remove"}, "]\n Success 16 files done.\n");
  EXPECT_FALSE(fs::exists("out"));
  for (const char *fault : {"Error: Missing", "Error: Unknown"})
    EXPECT_EQ(read_log("notes.log").find(fault), std::string::npos) << read_log("notes.log");
}

TEST(Manual, PatternsDoWhatTheySay) {
  const Tree page = read_page("installer-patterns.7");
  const struct {
    const char *pattern, *script; // run by sh -eux; `fails COMMAND...`, `modes MODE FILE...`
  } rows[] = {
      {"base",     R"(
./notes -automate; cmp files/share/lang/en.txt target/share/lang/en.txt)"},
      {"required", R"(
./notes -automate; fails test -e target
sed -i /^YN/d notes.q; ./notes -automate -strict && exit 1; test $? = 2; fails test -e target
printf '\n\nme@here\n\n' | ./notes; test -e target)"},
      {"choice",   R"(
mkdir choices; touch choices/language.de choices/language.en
printf '\nfr\n.\nde\n\n\n' | ./notes; grep "'language' set to 'de'" notes.log; rm -r target
rm choices/*; ./notes -automate; fails test -e target)"},
      {"remember", R"(
printf '1\n%s\n\n' $PWD/else | ./notes; rm else/bin/notesd
./notes -automate; test -e else/bin/notesd; fails test -e target
./notes -automate -special remove; fails test -e else; fails test -e state)"},
      {"text",     R"(
printf "\n\nBob's \$(touch ran)\n\n" | ./notes; fails test -e ran
target/bin/title | grep -x "These are Bob's .(touch ran)."; fails test -e ran)"},
      {"blurb",    R"(
touch target; ./notes -automate | grep 'Notes is NOT'
./notes -automate -strict >out.strict && exit 1; test $? = 1; fails grep 'Notes is' out.strict
rm target; ./notes -automate | grep 'Notes is installed. Start')"},
      {"secret",   R"(
(umask 0; printf '\n\nkey\n\n' | ./notes); modes 700 target/private
modes 600 target/private/key notes.log; cmp key target/private/key; fails grep S3cret notes.log)"},
      {"umask",    R"(
umask 77; cd /; sh $OLDPWD/install.sh -automate; cd -; modes 644 target/share/lang/en.txt
modes 755 target/share target/bin/notesd)"},
      {"modes",    R"(
(umask 77; ./notes -automate); modes 755 target target/bin/notesd target/share/lang
modes 644 target/share/page.html target/share/lang/en.txt)"},
      {"again",    R"(
mkdir -p target/installing; ./notes -automate; fails test -e target/installed
rmdir target/installing; rm target/bin/notesd
./notes -automate | grep '.Install.'; cmp files/bin/notesd target/bin/notesd
./notes -automate | grep '.Upgrade.'; test $(cat target/installed) = 2.1
fails test -e target/installing)"},
      {"back",     R"(
./notes -automate; echo mine >target/etc/notes.conf; echo new >files/bin/notesd
./notes -automate; ./notes -automate; grep mine target/etc/notes.conf; grep new target/bin/notesd
echo newer >files/bin/notesd; mkdir -p target.new/junk; ./notes -automate
grep newer target/bin/notesd; fails test -e target/junk
./notes -automate -special back; grep -x new target/bin/notesd
./notes -automate; rm -r target; ./notes -automate -special back; grep -x new target/bin/notesd
./notes -automate -special back | grep 'no version'
strace -o trace true || exit 0
for call in 1 2 3; do
  ./notes -automate; echo $call >files/bin/notesd
  fails strace -o trace -e inject=renameat:signal=KILL:when=$call ./notes -automate
  fails test -e target.old -a ! -e target.old/installed; ./notes -automate
  grep mine target/etc/notes.conf; grep $call target/bin/notesd
done; ./notes -automate -special remove; fails test -e target.old)"},
      {"replay",   R"(
printf '1\n%s\n\n' $PWD/else | sh -e first.sh; modes 600 answers; mv else kept
sh -e others.sh; diff -r kept else)"},
      {"hosts",    R"(
sed -i s,/opt/notes,$PWD/target, install.sh; sh install.sh | grep 'installed: 2.1'
echo x >target/share/page.html; sh install.sh; cmp files/share/page.html target/share/page.html
test $(cat target/port) = 8080; ./notes -automate -strict -special remove; fails test -e target
echo prot 1 >>answers; sh install.sh 2>reasons && exit 1; test $? = 2; grep answers:2: reasons
: >answers; sh install.sh 2>reasons && exit 1; test $? = 2; grep port: reasons; fails test -e target)"},
  };
  for (const auto &[pattern, script] : rows) {
    const TempDir folder;
    write_pattern(pattern);
    write_file("key", "S3cret");
    EXPECT_EQ(std::system(INSTALLER_CHECK " -strict >out 2>&1"), 0) << pattern << read_file("out");
    move_pattern("");
    write_file("script",
               "fails() { if \"$@\"; then return 1; fi; }\n"
               "modes() { mode=$1; shift; test -z \"$(find \"$@\" -prune ! -perm $mode)\"; }\n" +
                   std::string{script});
    EXPECT_EQ(std::system("sh -eux script >out 2>&1"), 0) << pattern << '\n' << read_file("out");
  }
  for (const auto &file : page)
    EXPECT_TRUE(std::ranges::any_of(rows, [&](const auto &row) {
      return file.first.starts_with(std::string{row.pattern} + "/");
    })) << file.first;
}

TEST(Manual, GuideOfReadmeWorks) {
  const TempDir home;
  const std::string tools = "$PWD/build/release", build = "scripts/build release\n";
  const std::string readme = read_file(INSTALLER_SOURCE_DIR "/README.md");
  const std::size_t start = readme.find("```sh\ntools=") + 6;
  std::string guide = readme.substr(start, readme.find("```", start) - start);
  const std::string built = fs::path{INSTALLER_PROGRAM}.parent_path().string();
  guide.erase(guide.find(build), build.size());
  guide.replace(guide.find(tools), tools.size(), built);
  write_file("guide", guide);
  EXPECT_EQ(std::system("HOME=$PWD bash -eu guide >out 2>&1"), 0) << read_file("out");
  EXPECT_NE(read_file("out").find("\nHello, World!\n"), std::string::npos) << read_file("out");
  ::setenv("HOME", home.path().c_str(), 1);
  fs::current_path("hello");
  expect_round_trip("./hello");
}

} // namespace installer::test
