#include "proxy/head_reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <vector>

#include "support/corpus.h"

namespace sorvane::proxy {
namespace {

using State = ProxyHeadReader::State;

// What the reader made of a stream, in one text: equal texts are equal results.
std::string resultOf(const ProxyHeadReader& reader) {
  switch (reader.state()) {
    case State::reading:
      return "reading";
    case State::refused:
      return "refused " + std::to_string(reader.refusal().status) + " " + reader.refusal().code;
    case State::finished:
      break;
  }
  const ProxyRequestHead& head = reader.head();
  std::string text = head.method + " " + head.path + (head.query ? " ? " + *head.query : "");
  for (const ProxyHeader& header : head.headers) text += "\n" + header.name + "=" + header.value;
  return text + "\nlength " + (head.contentLength ? std::to_string(*head.contentLength) : "absent");
}

std::string read(std::string_view bytes) {
  ProxyHeadReader reader;
  reader.feed(bytes);
  return resultOf(reader);
}

std::string readSplit(std::string_view bytes, const std::vector<std::size_t>& ends) {
  ProxyHeadReader reader;
  std::size_t start = 0;
  for (const std::size_t end : ends) {
    reader.feed(bytes.substr(start, end - start));
    start = end;
    if (reader.state() != State::reading) break;
  }
  return resultOf(reader);
}

std::vector<std::size_t> everyByte(std::size_t size) {
  std::vector<std::size_t> ends(size);
  for (std::size_t at = 0; at < size; ++at) ends[at] = at + 1;
  return ends;
}

std::vector<std::size_t> randomSplit(std::size_t size, std::mt19937& random) {
  std::vector<std::size_t> ends;
  std::size_t at = 0;
  while (at < size) {
    at = std::min<std::size_t>(size, at + 1 + random() % 40);
    ends.push_back(at);
  }
  return ends;
}

// Rows that the head alone does not decide; the server's own test judges them with the body, the host and the
// credential.
bool decidedByTheHead(const std::vector<std::string>& row) {
  const std::string& file = row[0];
  const std::string& category = row[4];
  if (category == "web" || category == "pipe") return false;
  if (category == "host") return file.find("dup") != std::string::npos || file.find("nul") != std::string::npos;
  static const std::set<std::string> others{
      "cl-extra-after-body.http",       "cl-head-with-cl.http",        "cl-missing-with-body.http",
      "cl-over-limit-10g.http",         "cl-short-body.http",          "dup-auth-and-xapikey.http",
      "dup-authorization.http",         "hop-expect-100.http",         "hop-expect-empty.http",
      "hop-upgrade-h2c.http",           "line-target-dblslash.http",   "line-target-dotdot-enc.http",
      "line-target-backslash-enc.http", "line-absform-no-scheme.http", "part-cut069.http"};
  return !others.contains(file);
}

TEST(ProxyHeadReader, judgesTheCorpusTheSameHoweverItIsSplit) {
  std::mt19937 random(20261121);
  int judged = 0, rows = 0;
  for (const auto& row : test::tableOfFile(test::corpus("http/expected.tsv"))) {
    ++rows;
    SCOPED_TRACE(row[0]);
    const std::string bytes = test::textOfFile(test::corpus("http/requests") / row[0]);
    const std::string whole = read(bytes);
    EXPECT_EQ(readSplit(bytes, everyByte(bytes.size())), whole);
    for (int round = 0; round < 5; ++round) {
      EXPECT_EQ(readSplit(bytes, randomSplit(bytes.size(), random)), whole);
    }
    if (!decidedByTheHead(row)) continue;
    ++judged;
    const std::string verdict = whole == "reading" ? "incomplete" : whole.starts_with("refused") ? "reject" : "accept";
    EXPECT_EQ(verdict, row[1]) << whole;
  }
  EXPECT_EQ(rows, 309);
  EXPECT_EQ(judged, 252);
}

TEST(ProxyHeadReader, namesEachViolation) {
  const std::string line = "POST /openai/v1/responses HTTP/1.1\r\n";
  const std::string end = "\r\n";
  struct Case {
    std::string bytes, expected;
  };
  std::string many = line;
  for (std::size_t at = 0; at <= kMaxHeaders; ++at) many += "x-" + std::to_string(at) + ": 1\r\n";
  const std::vector<Case> cases{
      {"POST /" + std::string(kMaxRequestLineBytes, 'a'), "refused 414 request_line_too_long"},
      {line + "x: " + std::string(kMaxHeadBytes, 'a'), "refused 431 headers_too_large"},
      {many, "refused 431 too_many_headers"},
      {"POST  / HTTP/1.1\r\n", "refused 400 bad_request_line"},
      {"PO(ST / HTTP/1.1\r\n", "refused 400 bad_method"},
      {"POST / HTTP/1.0\r\n", "refused 400 bad_version"},
      {"POST http://127.0.0.1/ HTTP/1.1\r\n", "refused 400 bad_target"},
      {"POST /%4 HTTP/1.1\r\n", "refused 400 bad_target"},
      {line + "a b: c\r\n", "refused 400 bad_header"},
      {line + "a: \xc3\xa9\r\n", "refused 400 bad_header_value"},
      {line + std::string("a: \0", 4), "refused 400 bad_byte"},
      {line + "a: b\rc", "refused 400 bare_cr"},
      {line + "a: b\nc", "refused 400 bare_lf"},
      {line + "a: b\r\n c\r\n", "refused 400 obs_fold"},
      {line + "a: b\r\nA: b\r\n", "refused 400 duplicate_header"},
      {line + "content-length: +1\r\n", "refused 400 bad_content_length"},
      {line + "content-length: 1\r\ntransfer-encoding: chunked\r\n" + end, "refused 400 smuggling"},
      {line + "transfer-encoding: chunked\r\ncontent-length: 1\r\n" + end, "refused 400 smuggling"},
      {line + "transfer-encoding: identity\r\n" + end, "refused 501 transfer_encoding_not_supported"},
      {"CONNECT /a HTTP/1.1\r\n", "refused 405 method_not_allowed"},
      {"TRACE / HTTP/1.1\r\n", "refused 405 method_not_allowed"},
  };
  for (const Case& each : cases) {
    EXPECT_EQ(read(each.bytes), each.expected);
    EXPECT_EQ(readSplit(each.bytes, everyByte(each.bytes.size())), each.expected);
  }
}

TEST(ProxyHeadReader, keepsWhatIsAtItsLimits) {
  const std::string path = "/" + std::string(kMaxRequestLineBytes - std::string("POST / HTTP/1.1\r\n").size(), 'a');
  const std::string line = "POST " + path + " HTTP/1.1\r\n";
  EXPECT_EQ(read(line + "\r\n"), "POST " + path + "\nlength absent");
  EXPECT_EQ(read("POST a" + line.substr(5) + "\r\n"), "refused 414 request_line_too_long");

  const std::string start = "POST / HTTP/1.1\r\nx: ";
  const std::string value(kMaxHeadBytes - start.size() - 4, 'a');
  EXPECT_EQ(read(start + value + "\r\n\r\n"), "POST /\nx=" + value + "\nlength absent");
  EXPECT_EQ(read(start + value + "a\r\n\r\n"), "refused 431 headers_too_large");
}

TEST(ProxyHeadReader, keepsHeadersAsTheyCameAndWhatFollowsTheHead) {
  ProxyHeadReader reader;
  reader.feed(
      "\r\nPOST /a?b=c&d HTTP/1.1\r\nHost:  h \t\r\nAnthropic-Beta: one\r\nX-Api-Key: k\r\nanthropic-beta: two\r\n"
      "Content-Length: 007\r\n\r\nbody\r\n\r\n");
  ASSERT_EQ(reader.state(), State::finished);
  // Betas that a client sends one by one are one list.
  EXPECT_EQ(resultOf(reader),
            "POST /a ? b=c&d\nHost=h\nAnthropic-Beta=one, two\nX-Api-Key=k\nContent-Length=007\nlength 7");
  EXPECT_EQ(reader.rest(), "body\r\n\r\n");
  ASSERT_NE(reader.head().header("x-api-key"), nullptr);
  EXPECT_EQ(reader.head().header("x-none"), nullptr);
}

}  // namespace
}  // namespace sorvane::proxy
