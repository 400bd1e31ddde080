// What may be on the command line of a program.

#include "board/CommandTree.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <CLI/CLI.hpp>

namespace Board {
namespace {

using testing::ElementsAre;

class CommandTreeTest : public testing::Test {
protected:
   CommandTreeTest() {
      app.add_option("--file,-f", text, "A file")->option_text("FILE");
      group->add_flag("--one", flag);
      CLI::App* hidden = app.add_subcommand("hidden");
      hidden->group("");
      inner->add_option("--level", text);
      inner->add_option("PLACE", text);
      app.fallthrough();
   }

   std::vector<std::string> optionsOf(const CLI::App& verb) {
      std::vector<std::string> names;
      forEachOption(verb, [&](const CLI::Option& option) { names.push_back(option.get_name()); });
      return names;
   }

   std::string text;
   bool flag = false;
   CLI::App app{"", "program"};
   CLI::App* outer = app.add_subcommand("outer");
   CLI::Option_group* group = outer->add_option_group("Group");
   CLI::App* inner = outer->add_subcommand("inner");
};

TEST_F(CommandTreeTest, VerbsAreThoseOfTheHelp) {
   ASSERT_EQ(verbsOf(app).size(), 1U) << "neither groups of options nor what is hidden";
   EXPECT_EQ(verbsOf(app)[0], outer);
   ASSERT_EQ(verbsOf(*outer).size(), 1U);
   EXPECT_EQ(verbsOf(*outer)[0], inner);
   EXPECT_TRUE(verbsOf(*inner).empty());
}

TEST_F(CommandTreeTest, ACommandIsWhatOneTypes) {
   EXPECT_EQ(commandOf(app), "program");
   EXPECT_EQ(commandOf(*inner), "program outer inner");
}

TEST_F(CommandTreeTest, ALineReachesAVerbAlsoWhenItIsWrong) {
   EXPECT_EQ(&verbReached(app), &app);
   EXPECT_THROW(app.parse("outer inner --nope"), CLI::ParseError);
   EXPECT_EQ(&verbReached(app), inner);
   app.parse("outer --one");
   EXPECT_EQ(&verbReached(app), outer) << "a group of options is no verb";
}

TEST_F(CommandTreeTest, BehindAVerbStandItsOptionsAndThoseOfAllAboveIt) {
   EXPECT_THAT(optionsOf(*inner),
               ElementsAre("--help", "--level", "--help", "--help", "--one", "--help", "--file"));
   EXPECT_THAT(optionsOf(app), ElementsAre("--help", "--file"));
   EXPECT_EQ(optionOf(*inner, "-f"), app.get_option("--file"));
   EXPECT_EQ(optionOf(app, "--level"), nullptr);
   EXPECT_EQ(optionOf(*outer, "--one"), group->get_option("--one"));
}

TEST_F(CommandTreeTest, APlaceholderIsWhatTheHelpShows) {
   EXPECT_EQ(placeholderOf(*app.get_option("--file")), "FILE");
   EXPECT_EQ(placeholderOf(*inner->get_option("PLACE")), "PLACE");
   EXPECT_EQ(placeholderOf(*inner->get_option("--level")), "TEXT");
}

} // namespace
} // namespace Board
