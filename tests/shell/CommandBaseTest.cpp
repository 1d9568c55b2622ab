#include "shell/CommandBase.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <iostream>

#include "platform/tasks/TaskQueue.h"
#include "tests/fakes/Streams.h"
#include "tests/shell/Node.h"

namespace {

using Words = std::list<std::string>;

OptionHandler returning(bool result) {
  return [result](const TaskGroup&, const Words&) { return result; };
}

void addOptions(Node& node, const std::vector<const char*>& names) {
  for (const char* const name : names) {
    node.addOption(name, returning(true), "");
  }
}

std::string helpWith(const std::string& name, const std::string& body) {
  return "\nOptions for command '\033[32m" + name + "\033[39m':\n\n" + body +
         "\t              cd  -  <sub-command>\n\t            help\n\t            back\n"
         "\t            quit\n\n";
}

TEST(CommandBase, HelpShowsTheTreeBelow) {
  const auto root = Node::create("root", {}, [](Node& node) {
    addOptions(node, {"tel", "exactly16letters", "Z"});
    node.addOption("seventeen-letters", returning(true), "its help");
    node.addChild("logdump", [](Node& child) { addOptions(child, {"tel", "core", "bb"}); });
    node.addChild("bare", [](Node& child) {
      child.addChild("empty");
      child.addChild("two", [](Node& grandchild) {
        addOptions(grandchild, {"x"});
        grandchild.addChild("three", [](Node& last) { addOptions(last, {"y"}); });
      });
      child.addChild("one", [](Node& grandchild) { addOptions(grandchild, {"z"}); });
    });
    const auto child =
        Node::create("own", node.weak_from_this(), [](Node& named) { addOptions(named, {"o"}); });
    node.addSubCommand(std::vector<std::string>{"key", "alias", "another"}, child);
  });
  const std::pair<std::shared_ptr<CommandBase>, std::string> cases[] = {
      {Node::create("leaf", {}), helpWith("leaf", "")},
      {root, helpWith("root",
                      "\t               Z  -  ...\n\n"
                      "\texactly16letters  -  ...\n\n"
                      "\tseventeen-letters  -  its help\n\n"
                      "\t             tel  -  ...\n\n"
                      "\t                     <one>  -  [z]\n"
                      "\t                     <two>  -  [x]\n"
                      "\t                                     <three>  -  [y]\n\n"
                      "\t             own  -  [o]\n\n"
                      "\t         logdump  -  [bb|core|tel]\n\n")}};
  for (const auto& [node, help] : cases) {
    const CapturedOutput output(std::cout);
    std::cout << std::left;
    node->printHelp();
    EXPECT_EQ(output.text(), help);
    EXPECT_TRUE(output.isFlushedByLine());
  }
}

TEST(CommandBase, RegistrationKeepsAndReplaces) {
  const auto root = Node::create("root", {}, [](Node& node) {
    node.addOption("ignored", OptionHandler(), "help");
    node.addOption("twice", returning(false), "kept");
    node.addOption("twice", returning(true), "");
    node.addChild("key");
    const auto second = Node::create("second", node.weak_from_this());
    node.addSubCommand(std::vector<std::string>{"key", "alias", "clash"}, second);
    node.addSubCommand(std::vector<std::string>(), second);
    node.addChild("clash");
  });
  EXPECT_FALSE(root->hasOption("ignored"));
  EXPECT_TRUE(root->executeOption("twice", {}));
  EXPECT_FALSE(root->executeOption("nosuch", {}));
  EXPECT_EQ(root->getSubCommand("key")->getPath(), "/root/second");
  EXPECT_EQ(root->getSubCommand("alias"), root->getSubCommand("key"));
  EXPECT_EQ(root->getSubCommand("clash")->getPath(), "/root/clash");
  EXPECT_FALSE(root->hasSubCommand("nosuch"));
  EXPECT_EQ(root->getSubCommand("nosuch"), nullptr);
  EXPECT_EQ(root->getSubCommands().size(), 2U);
  EXPECT_EQ(root->getOptions().size(), 1U);
  const CapturedOutput output(std::cout);
  root->printHelp();
  EXPECT_NE(output.text().find("\t           twice  -  kept\n"), std::string::npos);
}

TEST(CommandBase, TreeBelongsToItsRoot) {
  auto root = Node::create("root", {}, [](Node& node) { node.addChild("a/b"); });
  const std::shared_ptr<CommandBase> child = root->getSubCommand("a/b");
  EXPECT_EQ(child->getPath(), "/root/a/b");
  EXPECT_EQ(child->getParent().lock(), root);
  root.reset();
  EXPECT_EQ(child->getParent().lock(), nullptr);
  EXPECT_EQ(Node::create("late", child->getParent())->getPath(), "/late");
}

TEST(CommandBase, ExecuteOptionWaitsForAsynchronousWork) {
  for (const bool result : {true, false}) {
    const TaskQueue queue = TaskQueue::create("work");
    std::promise<void> release;
    Words words;
    const auto root = Node::create("root", {}, [&](Node& node) {
      node.addOption(
          "late",
          [&](const TaskGroup& group, const Words& args) {
            queue.submit([&words, &release, args, hold = TaskGroupHold(group)] {
              release.get_future().wait();
              words = args;
            });
            return result;
          },
          "");
    });
    auto run = std::async(std::launch::async, [&] {
      return root->executeOption("late", {"a", "b"});
    });
    EXPECT_EQ(run.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    release.set_value();
    EXPECT_EQ(run.get(), result);
    EXPECT_EQ(words, Words({"a", "b"}));
  }
}

}  // namespace
