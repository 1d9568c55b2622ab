#include <gtest/gtest.h>

#include <random>
#include <stdexcept>
#include <thread>

#include "platform/tasks/TaskQueue.h"
#include "tests/shell/ShellCases.h"

namespace {

TEST(ShellTest, DoesOnRandomTreesWhatTheModelDoes) {
  for (unsigned seed = 0; seed < 4000; ++seed) {
    std::mt19937 random(seed);
    std::vector<std::uint8_t> data(2048);
    for (std::uint8_t& byte : data) {
      byte = static_cast<std::uint8_t>(random());
    }
    const std::optional<std::string> disagreement = disagreementOn(data);
    ASSERT_FALSE(disagreement) << "seed " << seed << ", " << *disagreement;
  }
}

class Node : public CommandBase {
 public:
  explicit Node(const std::string& nodeName) : CommandBase(nodeName, {}) {}

  void registerOptions() override {}
  using CommandBase::addOption;
  using CommandBase::addSubCommand;
};

std::shared_ptr<Node> makeNode(const std::string& name, const OptionHandler& handler) {
  auto node = std::make_shared<Node>(name);
  node->initialize();
  node->addOption("do", handler, "");
  return node;
}

TEST(ShellTest, HelpListsOptionsAndThoseBelow) {
  const auto handler = [](const TaskGroup&, const Words&) { return true; };
  const auto root = makeNode("r", handler);
  const auto group = makeNode("group", {});
  const auto leaf = makeNode("leaf", handler);
  root->addOption("seventeen-letters", handler, "text");
  root->addOption("seventeen-letters", handler, "");
  root->addOption("nothing", {}, "text");
  root->addSubCommand("key", group);
  root->addSubCommand(std::vector<std::string>{"leaf", "alias"}, leaf);
  group->addSubCommand("leaf", leaf);
  leaf->addOption("again", handler, "text");
  EXPECT_TRUE(root->hasSubCommand("leaf") && root->hasSubCommand("alias"));
  const CapturedOutput output(std::cout);
  std::cout << std::left;  // help is aligned whatever the stream was set to
  root->printHelp();
  EXPECT_TRUE(output.isFlushedByLine());
  EXPECT_EQ(output.text(),
            "\nOptions for command '\033[32mr\033[39m':\n\n"
            "\t              do  -  ...\n\n\tseventeen-letters  -  text\n\n"
            "\t                     <leaf>  -  [again|do]\n\n"
            "\t            leaf  -  [again|do]\n\n"
            "\t              cd  -  <sub-command>\n"
            "\t            help\n\t            back\n\t            quit\n\n");
}

TEST(ShellTest, AnOptionEndsWithTheWorkOfItsRun) {
  const TaskQueue queue = TaskQueue::create("work");
  TaskGroup earlier;
  bool isDone = false;
  const auto node = makeNode("r", [&](const TaskGroup& group, const Words& words) {
    EXPECT_TRUE(group.wait(std::chrono::nanoseconds(0)));  // empty, whoever is in another run's
    if (earlier) {
      earlier.leave();
    }
    earlier = group;
    queue.submit([&isDone, words, hold = TaskGroupHold(group)] {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      isDone = words == Words({"a", "b"});
    });
    return true;
  });
  EXPECT_TRUE(node->executeOption("do", {"a", "b"}));
  EXPECT_TRUE(std::exchange(isDone, false));
  earlier.enter();
  EXPECT_TRUE(node->executeOption("do", {"a", "b"}));
  EXPECT_TRUE(isDone);
  EXPECT_FALSE(node->executeOption("nosuch", {}));
}

TEST(ShellTest, EndsWithoutARootAndLetsExceptionsThrough) {
  const auto failing = makeNode("r", [](const TaskGroup&, const Words&) -> bool {
    throw std::out_of_range("thrown by an option");
  });
  for (const Words& args : {Words{}, Words{"r"}, Words{"r", "do"}}) {
    const ScriptedInput input(std::cin, "do\n");
    const CapturedOutput output(std::cout);
    EXPECT_FALSE(ShellOverTree(nullptr).run(args));
    EXPECT_THROW(ShellOverTree(failing).run(args), std::out_of_range);
    EXPECT_EQ(output.text(), args.size() == 2 ? "" : "(/r)>> ");
  }
}

}  // namespace
