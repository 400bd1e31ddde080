// What programs say of a command line that is wrong.

#include "board/UsageText.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace Board {
namespace {

class UsageTextTest : public testing::Test {
protected:
   UsageTextTest() {
      app.require_subcommand(1);
      app.fallthrough();
      app.add_option("--file,-f", text, "A file")->option_text("FILE");
      app.add_flag("--json", flag, "JSON");
      CLI::App* read = app.add_subcommand("read", "Reads");
      read->add_option("PATTERN", words, "Names of\nregisters")->required();
      read->add_option("--timeout", text, "Patience")->option_text("SECONDS");
      CLI::App* write = app.add_subcommand("write", "Writes");
      write->add_option("--value", text, "NAME=VALUE, or so")->required()->option_text("TEXT");
      write->add_option("PLACE", text, "Where to");
      CLI::App* diff = app.add_subcommand("diff", "Compares");
      CLI::Option_group* group = diff->add_option_group("With");
      group->add_option("--with-dump", text);
      group->add_option("--with-device", text);
      group->require_option(1);
      CLI::App* shadow = app.add_subcommand("shadow", "Shadows");
      shadow->require_subcommand(1);
      shadow->add_subcommand("state", "States");
      CLI::App* set = shadow->add_subcommand("set", "Sets");
      CLI::Option* wait = set->add_flag("--wait", flag);
      set->add_option("--patience", text)->needs(wait);
      set->add_flag("--at-once", flag)->excludes(wait);
   }

   std::string wrong(const std::string& line) {
      try {
         app.parse(line);
      } catch (const CLI::ParseError& error) {
         message = usageMessage(app, "it");
         return usageText(app, error);
      }
      return "nothing";
   }

   std::string text;
   std::vector<std::string> words;
   bool flag = false;
   CLI::App app{"", "program"};
   std::string message;
};

TEST_F(UsageTextTest, AVerbThatIsMissing) {
   EXPECT_EQ(wrong(""), "a verb is needed: read, write, diff, shadow");
   EXPECT_EQ(wrong("shadow"), "shadow needs a verb: state, set");
}

TEST_F(UsageTextTest, AVerbOfAnotherName) {
   EXPECT_EQ(wrong("raed A"), "no verb 'raed'; did you mean read?");
   EXPECT_EQ(wrong("frobnicate"), "no verb 'frobnicate'");
   EXPECT_EQ(wrong("help"), "no verb 'help'; did you mean --help?");
   EXPECT_EQ(wrong("shadow stat"), "shadow has no verb 'stat'; did you mean state, set?");
   EXPECT_EQ(wrong("shadow read"), "shadow has no verb 'read'");
}

TEST_F(UsageTextTest, AnOptionOfAnotherName) {
   EXPECT_EQ(wrong("read A --timout 3"), "no option '--timout'; did you mean --timeout?");
   EXPECT_EQ(wrong("read A --jsno"), "no option '--jsno'; did you mean --json?");
   EXPECT_EQ(wrong("read A --timout=3"), "no option '--timout'; did you mean --timeout?");
   EXPECT_EQ(wrong("read A -x"), "no option '-x'");
   EXPECT_EQ(wrong("--vlaue 3"), "no option '--vlaue'") << "there is no verb yet that has one";
}

TEST_F(UsageTextTest, AnOptionOfAnotherNameIsWhyTheRightOneIsMissing) {
   EXPECT_EQ(wrong("write --vlaue 3"), "no option '--vlaue'; did you mean --value?");
   EXPECT_EQ(wrong("diff --with-dum x"), "no option '--with-dum'; did you mean --with-dump?");
}

TEST_F(UsageTextTest, AnOptionBeforeItsVerb) {
   EXPECT_EQ(wrong("--timeout 3 read A"), "--timeout is an option of read, and stands behind it");
}

TEST_F(UsageTextTest, WhatIsNeededIsSaidAsTheHelpSaysIt) {
   EXPECT_EQ(wrong("read"), "PATTERN is needed: names of registers");
   EXPECT_EQ(wrong("write"), "--value TEXT is needed: NAME=VALUE, or so");
}

TEST_F(UsageTextTest, WordsThatAreTooMany) {
   EXPECT_EQ(wrong("write --value 1 A B"), "'B' is a word too many");
   EXPECT_EQ(wrong("shadow state more"), "'more' is a word too many");
}

TEST_F(UsageTextTest, ValuesThatAreMissingOrTooMany) {
   EXPECT_EQ(wrong("--file"), "--file needs a value: FILE");
   EXPECT_EQ(wrong("-f a --file b read A"), "--file is given more than once");
   EXPECT_EQ(wrong("--json=x read A"), "--json takes no value");
}

TEST_F(UsageTextTest, OneOfSeveralOptions) {
   EXPECT_EQ(wrong("diff"), "one of --with-dump, --with-device is needed");
   EXPECT_EQ(wrong("diff --with-dump a --with-device b"),
             "only one of --with-dump, --with-device can be given");
}

TEST_F(UsageTextTest, OptionsThatGoTogetherOnlyOrNever) {
   EXPECT_EQ(wrong("shadow set --patience 1"), "--patience goes only with --wait");
   EXPECT_EQ(wrong("shadow set --at-once --wait"), "--wait goes without --at-once");
}

TEST_F(UsageTextTest, TheMessageSaysWhoseHelpToRead) {
   wrong("");
   EXPECT_EQ(message, "program: error: it\nRun program --help for the command line.\n");
   wrong("shadow set --nope");
   EXPECT_EQ(message, "program: error: it\nRun program shadow set --help for the command line.\n");
}

TEST_F(UsageTextTest, WhatAnOptionSaysItselfStaysAsItIs) {
   app.get_option("--file")->check([](const std::string&) { return std::string("it is bad"); });
   EXPECT_EQ(wrong("--file a read A"), "--file: it is bad");
}

} // namespace
} // namespace Board
