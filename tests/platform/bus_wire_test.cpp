#include "platform/linux/bus_wire.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstring>

#include "platform/linux/agent_helper.h"

namespace sorvane::platform {
namespace {

/// polkit's question to an agent, about two users and a group.
BusMessage question() {
  BusMessage call;
  call.serial = 7;
  call.path = "/org/sorvane/TextAgent";
  call.interface = "org.freedesktop.PolicyKit1.AuthenticationAgent";
  call.member = "BeginAuthentication";
  call.destination = ":1.7";
  call.sender = ":1.2";
  call.signature = "sssa{ss}sa(sa{sv})";
  BusWriter body;
  for (const char* const text : {"org.sorvane.owner-check", "is it you?", ""}) body.text(text);
  const auto details = body.begin();
  body.align(8);
  body.text("polkit.caller-pid");
  body.text("42");
  body.end(details);
  body.text("7-cookie");
  const auto identities = body.begin();
  for (const auto& [kind, word, id] : {std::tuple("unix-user", "uid", 1000U), std::tuple("unix-group", "gid", 27U),
                                       std::tuple("unix-user", "uid", 0U)}) {
    body.align(8);
    body.text(kind);
    const auto words = body.begin();
    body.align(8);
    body.text("name");
    body.signature("s");
    body.text("any");
    body.align(8);
    body.text(word);
    body.signature("u");
    body.number(id);
    body.end(words);
  }
  body.end(identities);
  call.body = body.bytes();
  return call;
}

TEST(BusWire, writesWhatTheProtocolShows) {
  BusMessage hello;
  hello.serial = 1;
  hello.path = "/a";
  hello.member = "Hi";
  hello.wantsReply = false;
  const std::string_view little(
      "l\1\1\1\0\0\0\0\1\0\0\0\x1b\0\0\0"
      "\1\1o\0\2\0\0\0/a\0\0\0\0\0\0"
      "\3\1s\0\2\0\0\0Hi\0\0\0\0\0\0",
      48);
  if (std::endian::native == std::endian::little) {
    EXPECT_EQ(written(hello), little);
  }
  EXPECT_EQ(readMessage(written(hello)), hello);
}

TEST(BusWire, readsTheQuestionAndNothingThatIsCutOrReachesTooFar) {
  const std::string bytes = written(question());
  EXPECT_EQ(messageLength(bytes), bytes.size());
  const auto message = readMessage(bytes);
  ASSERT_TRUE(message);
  EXPECT_EQ(*message, question());
  const auto asked = readAgentQuestion(*message);
  ASSERT_TRUE(asked);
  EXPECT_EQ(asked->action, "org.sorvane.owner-check");
  EXPECT_EQ(asked->cookie, "7-cookie");
  EXPECT_EQ(asked->users, (std::vector<std::uint32_t>{1000, 0}));
  for (std::size_t size = 0; size < bytes.size(); ++size) EXPECT_FALSE(readMessage(bytes.substr(0, size))) << size;
  for (std::size_t size = 0; size < message->body.size(); ++size) {
    BusMessage cut = *message;
    cut.body.resize(size);
    EXPECT_FALSE(readAgentQuestion(cut)) << size;
  }
  // Every length and number in the body made huge in turn.
  for (std::size_t at = 0; at + 4 <= message->body.size(); at += 4) {
    BusMessage broken = *message;
    std::memset(broken.body.data() + at, 0xFF, 4);
    const auto read = readAgentQuestion(broken);
    EXPECT_TRUE(!read || read->users.size() <= 2) << at;
  }
}

TEST(BusWire, refusesLengthsBeyondItsLimitFromTheFirstBytes) {
  const std::string bytes = written(question());
  for (const std::size_t at : {std::size_t{4}, std::size_t{12}}) {
    for (const std::uint32_t length : {0xFFFFFFFFU, static_cast<std::uint32_t>(kMaxBusMessage)}) {
      std::string broken = bytes;
      std::memcpy(broken.data() + at, &length, sizeof length);
      EXPECT_EQ(messageLength(broken), std::nullopt);
    }
  }
  std::string foreign = bytes;
  foreign[0] = foreign[0] == 'l' ? 'B' : 'l';
  EXPECT_EQ(messageLength(foreign), std::nullopt);
}

TEST(AgentHelper, readsItsLinesAsItWroteThem) {
  const std::pair<std::string, std::string> lines[] = {
      {"Password: ", "Password: "},
      {R"(Mot de passe \303\240 z\303\251ro)", "Mot de passe à zéro"},
      {R"(a\nb\t\"c\"\\)", "a\nb\t\"c\"\\"},
      {R"(\1018\7)", "A8\a"},
      {"\\", "\\"},
  };
  for (const auto& [line, text] : lines) EXPECT_EQ(unescaped(line), text);
  EXPECT_EQ(accountName(0), "root");
}

}  // namespace
}  // namespace sorvane::platform
