// Whatever an argument holds, the shell hands it to the command literally.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "command.h"
#include "qd.h"
#include "sandbox.h"

using testing_support::Sandbox;

namespace {

int Join(void *context, char *line) {
  auto *out = static_cast<std::string *>(context);
  if (!out->empty()) out->push_back('\n');
  out->append(line);
  return 0;
}

TEST(CommandLine, EveryWordReachesTheCommandLiterally) {
  Sandbox box;
  ASSERT_EQ(chdir(box.dir().c_str()), 0);
  const std::vector<std::string> words = {
      "disk0", "two words", "$(touch pwned)", "`touch pwned`", "a;touch pwned", "it's",
      "\"quoted\"", "back\\slash", "new\nline", "*", "~", "a|b", "a>pwned", "$HOME", "",
      "tab\there", "!event", "{a,b}",
  };
  for (const std::string &w : words) {
    qd::CommandLine line(4096);
    line.Raw("printf '[%s]' ").Word(w);
    char buf[4096];
    ASSERT_TRUE(line.CopyTo(buf)) << w;
    std::string out;
    EXPECT_EQ(ExecuteCommand(buf, Join, &out), 0) << line.text();
    EXPECT_EQ(out, "[" + w + "]") << line.text();
  }
  EXPECT_NE(access("pwned", F_OK), 0) << "an argument was run by the shell";
}

TEST(CommandLine, PlainWordsKeepTheirShape) {
  qd::CommandLine line(4096);
  line.Raw("unitprop ").Word("disk0").Raw(" ").Word("desc");
  EXPECT_EQ(line.text(), "unitprop disk0 desc");
}

TEST(CommandLine, RefusesOptionLikeWordsAndLinesThatDoNotFit) {
  char buf[64];
  qd::CommandLine option(sizeof buf);
  option.Raw("unitprop ").Word("-v").Raw(" ").Word("desc");
  EXPECT_FALSE(option.CopyTo(buf));
  EXPECT_STREQ(option.error(), "argument would be read as an option");

  qd::CommandLine exact(sizeof buf);
  exact.Word(std::string(sizeof buf - qd::kRedirectRoom - 1, 'x'));
  EXPECT_TRUE(exact.CopyTo(buf));
  qd::CommandLine over(sizeof buf);
  over.Word(std::string(sizeof buf - qd::kRedirectRoom, 'x'));
  EXPECT_FALSE(over.CopyTo(buf));
}

}  // namespace
