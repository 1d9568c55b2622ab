#include "shell/CommandShell.h"

#include <gtest/gtest.h>

#include <iostream>

#include "tests/fakes/Streams.h"
#include "tests/shell/Node.h"

namespace {

using Words = std::list<std::string>;

/// Adds an option that prints its path and its words.
void addEcho(Node& node, const std::string& name) {
  const auto echo = [path = node.getPath() + "." + name](const TaskGroup&, const Words& args) {
    std::cout << path;
    for (const std::string& word : args) {
      std::cout << "<" << word << ">";
    }
    std::cout << std::endl;
    return true;
  };
  node.addOption(name, echo, "");
}

/// The tree of all tests here:
///   r       options ok, no (fails)
///   r/g     options ok, locked (refused); sub-command h; alias gg
///   r/shut  option ok; refused
///   r/x     options and sub-commands with names that mean something to the shell
std::shared_ptr<CommandBase> makeTree() {
  return Node::create("r", {}, [](Node& root) {
    addEcho(root, "ok");
    root.addOption(
        "no", [](const TaskGroup&, const Words&) { return false; }, "");
    const auto group = Node::create("g", root.weak_from_this(), [](Node& node) {
      addEcho(node, "locked");
      addEcho(node, "ok");
      node.refused = {"locked"};
      node.addChild("h");
    });
    root.addSubCommand(std::vector<std::string>{"g", "gg"}, group);
    root.addChild("shut", [](Node& shut) { addEcho(shut, "ok"); });
    root.refused = {"shut"};
    root.addChild("x", [](Node& odd) {
      for (const char* const name : {"both", "cd", "help", "quit"}) {
        addEcho(odd, name);
      }
      odd.addChild("..");
      odd.addChild("back", [](Node& back) { addEcho(back, "ok"); });
      odd.addChild("both");
    });
  });
}

/// The help of the root, or of the node at that path below it.
std::string helpOf(const std::vector<std::string>& path) {
  std::shared_ptr<CommandBase> node = makeTree();
  for (const std::string& name : path) {
    node = node->getSubCommand(name);
  }
  const CapturedOutput output(std::cout);
  node->printHelp();
  return output.text();
}

std::string unknown(const std::string& word) {
  return "\nInvalid command option '\033[31m" + word + "\033[39m'";
}

const std::string kHelp = helpOf({});
const std::string kGroupHelp = helpOf({"g"});
const std::string kLeafHelp = helpOf({"g", "h"});
const std::string kPrompt = "(/r)>> ";
const std::string kGroupPrompt = "(/r/g)>> ";
const std::string kLeafPrompt = "(/r/g/h)>> ";

class Shell : public CommandShell {
 public:
  explicit Shell(std::shared_ptr<CommandBase> rootNode) : root(std::move(rootNode)) {}

 protected:
  std::shared_ptr<CommandBase> createRootCommand() override { return root; }

 private:
  const std::shared_ptr<CommandBase> root;
};

void expectRun(const Words& args, const std::string& input, const std::string& output,
               bool result) {
  SCOPED_TRACE(testing::PrintToString(args) + testing::PrintToString(input.substr(0, 100)));
  const ScriptedInput in(std::cin, input);
  const CapturedOutput out(std::cout);
  EXPECT_EQ(Shell(makeTree()).run(args), result);
  EXPECT_EQ(out.text(), output);
  EXPECT_TRUE(out.isFlushedByLine());
}

TEST(CommandShell, OneShot) {
  const struct {
    Words words;
    std::string output;
    bool result;
  } cases[] = {
      {{"--"}, "", true},
      {{""}, unknown("") + kHelp, false},
      {{"--", "ok", "a", "--", "--", "ok", "--"}, "/r.ok<a>\n/r.ok\n", true},
      {{"ok", "--", "no", "--", "ok"}, "/r.ok\n", false},
      {{"xyz", "--", "help"}, unknown("xyz") + kHelp, false},
      // An option takes all words that are left.
      {{"ok", "cd", "help", "---", "two words"}, "/r.ok<cd><help><---><two words>\n", true},
      {{"gg", "ok"}, "/r/g.ok\n", true},
      {{"g ok"}, unknown("g ok") + kHelp, false},
      // Help.
      {{"help"}, kHelp, true},
      {{"g", "help"}, kGroupHelp, true},
      {{"g"}, kGroupHelp, false},
      {{"help", "me"}, unknown("help") + kHelp, false},
      {{"g", "nosuch", "ok"}, unknown("nosuch") + kGroupHelp, false},
      // Refusals are silent.
      {{"g", "locked"}, "", false},
      {{"shut", "ok", "--", "ok"}, "", false},
      {{"cd", "shut"}, "", true},
      // The end.
      {{"quit", "--", "no"}, "", true},
      {{"quit", "now"}, unknown("quit") + kHelp, false},
      {{"g", "exit"}, unknown("exit") + kGroupHelp, false},
      // There is nowhere to move to.
      {{"back", "--", "ok"}, "/r.ok\n", true},
      {{"back", "now"}, unknown("back") + kHelp, false},
      {{"cd", "g", "--", "locked"}, unknown("locked") + kHelp, false},
      {{"cd"}, kHelp, false},
      {{"cd", "g", "x"}, kHelp, false},
      {{"cd", "g/ok"}, kGroupHelp, false},
      {{"cd", "g/."}, kGroupHelp, false},
      {{"cd", "g/../x/both", "--", "ok"}, "/r.ok\n", true},
      // Names that clash: "cd", then options, then sub-commands, then the shell's own words.
      {{"x", "cd"}, helpOf({"x"}), false},
      {{"x", "both", "a"}, "/r/x.both<a>\n", true},
      {{"x", "help"}, "/r/x.help\n", true},
      {{"x", "quit", "--", "ok"}, "/r/x.quit\n/r.ok\n", true},
      {{"x", "back", "ok"}, "/r/x/back.ok\n", true},
  };
  for (const auto& test : cases) {
    Words args = test.words;
    args.emplace_front("/usr/bin/r");
    expectRun(args, "ok\n", test.output, test.result);
  }
}

TEST(CommandShell, Interactive) {
  const std::string nul(1, '\0');
  const struct {
    std::string input;
    std::string output;
    bool result = false;
  } cases[] = {
      {"", kPrompt},
      {"quit\nok\n", kPrompt, true},
      {"ok -- exit -- ok\nok\n", kPrompt + "/r.ok\n", true},
      {"\n \t\n--\n-- --\n", kPrompt + kPrompt + kPrompt + kPrompt + kPrompt},
      // A failure ends its line, and no more.
      {"no -- ok\nok -- ok\n", kPrompt + kPrompt + "/r.ok\n/r.ok\n" + kPrompt},
      // Moving.
      {"cd g\nback\nback\n", kPrompt + kGroupPrompt + kPrompt + kPrompt},
      {"cd /\ncd ..\ncd //gg/\n", kPrompt + kPrompt + kPrompt + kGroupPrompt},
      {"cd g/h\ncd ../..\n", kPrompt + kLeafPrompt + kPrompt},
      {"cd x/..\n", kPrompt + "(/r/x/..)>> "},
      {"cd g -- ok -- back -- ok\n", kPrompt + "/r/g.ok\n/r.ok\n" + kPrompt},
      {"g cd h\ng\n", kPrompt + kLeafPrompt + unknown("g") + kLeafHelp + kLeafPrompt},
      {"cd g\nh cd ..\nh back\n",
       kPrompt + kGroupPrompt + kGroupPrompt + unknown("back") + kLeafHelp + kGroupPrompt},
      {"g\ncd\n", kPrompt + kGroupHelp + kPrompt + kHelp + kPrompt},
      // Whatever the bytes are.
      {" ok\ta\vb\fc\r\n", kPrompt + "/r.ok<a><b><c>\n" + kPrompt},
      {"ok a" + nul + "b " + nul + "\n", kPrompt + "/r.ok<a" + nul + "b><" + nul + ">\n" + kPrompt},
      {"ok \xff\xc0\x80 a\x85\xa0z\n", kPrompt + "/r.ok<\xff\xc0\x80><a\x85\xa0z>\n" + kPrompt},
      {"cd \xff/g\n", kPrompt + kHelp + kPrompt},
      {"- --\n", kPrompt + unknown("-") + kHelp + kPrompt},
      {"---\n", kPrompt + unknown("---") + kHelp + kPrompt},
  };
  for (const auto& test : cases) {
    expectRun({"r"}, test.input, test.output, test.result);
  }
  expectRun({}, "ok\n", kPrompt + "/r.ok\n" + kPrompt, false);
}

TEST(CommandShell, TakesAMegabyteInOneLine) {
  const std::string big(1 << 20, 'x');
  expectRun({"r"}, big, kPrompt + unknown(big) + kHelp + kPrompt, false);
  expectRun({"r"}, "cd " + std::string(1 << 20, '/') + "g\n", kPrompt + kGroupPrompt, false);
  std::string commands;
  std::string output;
  for (int i = 0; i < 100'000; ++i) {
    commands += "ok -- -- ";
    output += "/r.ok\n";
  }
  expectRun({"r"}, commands, kPrompt + output + kPrompt, false);
}

}  // namespace
