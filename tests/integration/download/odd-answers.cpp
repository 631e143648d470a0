// SPDX-License-Identifier: Apache-2.0
// Servers that are not there, refuse, stop, or answer something else than what was
// asked for.
#include "download-test.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

constexpr const char* kTag = "ETag: \"one\"";
constexpr const char* kOtherTag = "ETag: \"two\"";

std::string length(std::size_t bytes) {
  return "Content-Length: " + std::to_string(bytes);
}

std::string whole(const std::string& image, const char* tag = kTag) {
  return httpAnswer("200 OK", {length(image.size()), tag}, image);
}

std::string firstHalf(const std::string& image) {
  return httpAnswer("200 OK", {length(image.size()), kTag}, image.substr(0, image.size() / 2));
}

std::string range(const std::string& image, std::size_t first, std::size_t total, const char* tag = kTag) {
  const std::string rest = image.substr(first);
  return httpAnswer("206 Partial Content",
                    {length(rest.size()), tag,
                     "Content-Range: bytes " + std::to_string(first) + "-" +
                         std::to_string(image.size() - 1) + "/" + std::to_string(total)},
                    rest);
}

std::string chunked(const std::string& body) {
  char size[32];
  std::snprintf(size, sizeof size, "%zx", body.size());
  return httpAnswer("200 OK", {"Transfer-Encoding: chunked"},
                    std::string(size) + "\r\n" + body + "\r\n0\r\n\r\n");
}

class OddAnswers : public DownloadTest {
 protected:
  const std::string image = makeImage(200000);
};

TEST_F(OddAnswers, NoServer) {
  std::string url;
  {
    const OddServer gone({});
    url = gone.url();
  }
  configure(url);

  expectFailure(download(), "unreachable", "The server cannot be reached");

  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(OddAnswers, NotFound) {
  OddServer server({{httpAnswer("404 Not Found", {length(4)}, "none")}});
  configure(server.url());

  expectFailure(download(), "not-found", "it answered 404");

  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(OddAnswers, AnErrorOfTheServerKeepsWhatIsThere) {
  OddServer server(
      {{firstHalf(image)}, {httpAnswer("503 Busy", {length(0)}, "")}, {range(image, 100000, 200000)}});
  configure(server.url());
  download();

  expectFailure(download(), "server-error", "it answered 503");

  EXPECT_EQ(readFile(kPart).size(), 100000U);
  EXPECT_EQ(download().exitCode, 0);
  EXPECT_TRUE(readFile(kImage) == image);
}

TEST_F(OddAnswers, StopsHalfwayAndIsContinued) {
  OddServer server({{firstHalf(image)}, {range(image, 100000, 200000)}});
  configure(server.url());

  expectFailure(download(), "incomplete", "stopped after 100000 bytes of the 200000 bytes");

  EXPECT_THAT(files(), ElementsAre("wifiempfw.img.part", "wifiempfw.img.part.info"));
  EXPECT_EQ(download().exitCode, 0);
  EXPECT_THAT(server.requests().back(), HasSubstr("Range: bytes=100000-\r\nIf-Range: \"one\"\r\n"));
  EXPECT_TRUE(readFile(kImage) == image);
  EXPECT_THAT(files(), ElementsAre("wifiempfw.img"));
}

TEST_F(OddAnswers, StopsOneByteBeforeTheEnd) {
  OddServer server({{httpAnswer("200 OK", {length(image.size())}, image.substr(1))}});
  configure(server.url());

  expectFailure(download(), "incomplete", "stopped after 199999 bytes of the 200000 bytes");

  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(OddAnswers, StopsHalfwayWithoutAMarkOfTheFile) {
  for (const char* mark : {"X-Mark: none", "ETag: W/\"weak\""}) {
    OddServer server({{httpAnswer("200 OK", {length(image.size()), mark}, image.substr(0, 100))}});
    configure(server.url());

    expectFailure(download(), "incomplete", "stopped after 100 bytes");

    EXPECT_THAT(files(), IsEmpty()) << mark;
  }
}

TEST_F(OddAnswers, ADateIsAMarkWhenTheFileIsOldEnough) {
  const std::string date = "Date: Sat, 21 Nov 2026 07:00:00 GMT";
  const std::string settled = "Last-Modified: Sat, 21 Nov 2026 06:58:00 GMT";
  const std::string recent = "Last-Modified: Sat, 21 Nov 2026 06:59:30 GMT";
  const std::string half = image.substr(0, 100000);
  OddServer server({{httpAnswer("200 OK", {length(200000), date, recent}, half)},
                    {httpAnswer("200 OK", {length(200000), date, settled}, half)},
                    {range(image, 100000, 200000, "X-Mark: none")}});
  configure(server.url());

  download();
  EXPECT_THAT(files(), IsEmpty());
  download();
  EXPECT_EQ(download().exitCode, 0);

  EXPECT_THAT(server.requests().back(), HasSubstr("If-Range: Sat, 21 Nov 2026 06:58:00 GMT\r\n"));
  EXPECT_TRUE(readFile(kImage) == image);
}

TEST_F(OddAnswers, SendsMoreThanItSaid) {
  OddServer server({{httpAnswer("200 OK", {length(image.size() - 1), kTag}, image)}});
  configure(server.url());

  expectFailure(download(), "too-much", "more than the 199999 bytes");

  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(OddAnswers, SendsMoreThanTheRestThatWasAskedFor) {
  OddServer server({{firstHalf(image)}, {range(image, 100000, 200000) + "more"}});
  configure(server.url());
  download();

  expectFailure(download(), "too-much", "more than the 100000 bytes");

  EXPECT_THAT(files(), IsEmpty());
}

// Each of these answers to a request for the rest is of another file, or of another
// part of it.
TEST_F(OddAnswers, ADifferentFileIsNeverStitchedOn) {
  const std::string other = makeImage(200000, 2);
  const std::string longer = makeImage(250000, 3);
  const std::string odd[] = {
      range(other, 100000, 200000, kOtherTag),
      range(longer, 100000, 250000),
      range(image, 100001, 200000),
      // as long as what was asked for
      httpAnswer("206 Partial Content", {kTag, length(100000), "Content-Range: bytes 100000-199999/300000"},
                 image.substr(100000)),
      httpAnswer("206 Partial Content", {kTag, length(100000), "Content-Range: bytes 99999-199999/200000"},
                 image.substr(99999, 100000)),
      httpAnswer("206 Partial Content", {kTag, length(100000), "Content-Range: bytes 100000-199998/200000"},
                 image.substr(99999, 100000)),
      httpAnswer("206 Partial Content", {kTag, length(100)}, image.substr(100000, 100)),
      httpAnswer("206 Partial Content", {kTag, length(50), "Content-Range: bytes 100000-199999/200000"},
                 "short"),
      httpAnswer("206 Partial Content",
                 {kTag, length(5), "Content-Range: bytes 100000-9223372036854775807/-9223372036854775808"},
                 "range"),
      httpAnswer("206 Partial Content", {kTag, length(5), "Content-Range: bytes -5-4/9223372036854775807"},
                 "range"),
      httpAnswer("206 Partial Content", {kTag, length(5), "Content-Range: bytes 100000-199999/200000x"},
                 "range"),
      httpAnswer("416 Range Not Satisfiable", {length(0)}, ""),
  };
  for (const std::string& answer : odd) {
    OddServer server({{firstHalf(image)}, {answer}, {whole(other, kOtherTag)}});
    configure(server.url());
    download();

    const auto result = download();

    EXPECT_EQ(result.exitCode, 0) << result.error << answer.substr(0, 200);
    EXPECT_TRUE(readFile(kImage) == other) << answer.substr(0, 200);
    EXPECT_THAT(server.requests().back(), Not(HasSubstr("Range:")));
    EXPECT_THAT(files(), ElementsAre("wifiempfw.img"));
    std::remove(kImage.c_str());
  }
}

TEST_F(OddAnswers, TheWholeOfANewFileReplacesThePart) {
  const std::string other = makeImage(150000, 2);
  OddServer server({{firstHalf(image)}, {whole(other, kOtherTag)}});
  configure(server.url());
  download();

  EXPECT_EQ(download().exitCode, 0);

  EXPECT_TRUE(readFile(kImage) == other);
}

TEST_F(OddAnswers, APartOfAnotherUrlIsNotUsed) {
  OddServer first({{firstHalf(image)}});
  configure(first.url());
  download();
  OddServer second({{whole(image)}});
  configure(second.url());

  EXPECT_EQ(download().exitCode, 0);

  EXPECT_THAT(second.requests(), ElementsAre(Not(HasSubstr("Range:"))));
}

TEST_F(OddAnswers, APartThatWasNotAskedFor) {
  OddServer server({{range(image, 100000, 200000)}});
  configure(server.url());

  expectFailure(download(), "protocol", "sent a part of the package although all of it was asked for");

  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(OddAnswers, SendsNothing) {
  OddServer server({{httpAnswer("200 OK", {length(0), kTag}, "")}, {""}});
  configure(server.url());

  expectFailure(download(), "protocol", "an empty package");
  expectFailure(download(), "incomplete", "hung up without an answer");

  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(OddAnswers, DoesNotSayHowLongItIs) {
  OddServer server({{httpAnswer("200 OK", {kTag}, image)}});
  configure(server.url());

  expectFailure(download(), "protocol", "does not say how long");

  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(OddAnswers, ChunksAreAsGoodAsALength) {
  OddServer server({{chunked(image)}});
  configure(server.url());

  EXPECT_EQ(download().exitCode, 0);

  EXPECT_TRUE(readFile(kImage) == image);
  EXPECT_EQ(fwplatform::readDownloadStatus(kWifi)->total, 200000);
}

TEST_F(OddAnswers, ChunksThatStopAreNoImage) {
  const std::string answer = chunked(image);
  OddServer server({{answer.substr(0, answer.size() - 7)}});
  configure(server.url());

  expectFailure(download(), "incomplete", "before the end of the package");

  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(OddAnswers, DoesNotHangUpAfterTheEnd) {
  OddServer server({{whole(image), false}});
  configure(server.url(), "stall_timeout_s = 60");

  EXPECT_EQ(download().exitCode, 0);

  EXPECT_TRUE(readFile(kImage) == image);
}

TEST_F(OddAnswers, Stalls) {
  OddServer server({{firstHalf(image), false}});
  configure(server.url(), "stall_timeout_s = 1\nmax_retries = 0");

  expectFailure(download(), "stalled", "sent nothing for 1 s");

  EXPECT_EQ(readFile(kPart).size(), 100000U);
}

TEST_F(OddAnswers, ADripIsGivenUpAndTakenUpAgain) {
  const std::string head = httpAnswer("200 OK", {length(image.size()), kTag}, "");
  OddServer server({{head + image, true, head.size() + 100000}, {whole(image)}});
  configure(server.url(), "stall_timeout_s = 1\nmin_speed_kib_s = 200");

  const ProgramResult result = download();

  EXPECT_EQ(result.exitCode, 0) << result.error;
  ASSERT_THAT(server.requests(), SizeIs(2));
  EXPECT_THAT(server.requests().back(), HasSubstr("Range: bytes=1000"));
  EXPECT_TRUE(readFile(kImage) == image);
}

TEST_F(OddAnswers, ADripIsTakenUpAgainAsOftenAsTheConfigurationSays) {
  const std::string head = httpAnswer("200 OK", {length(image.size())}, "");
  const OddAnswer drip = {head + image, true, head.size()};
  OddServer server({drip, drip, drip, {whole(image)}});
  configure(server.url(), "stall_timeout_s = 1\nmin_speed_kib_s = 1\nmax_retries = 2");

  expectFailure(download(), "too-slow", "sent less than 1024 bytes a second for 1 s.");

  EXPECT_THAT(server.requests(), SizeIs(3));
  EXPECT_THAT(server.requests().back(), Not(HasSubstr("Range:"))) << "of a file without a mark";
  EXPECT_THAT(files(), IsEmpty());
  EXPECT_EQ(download().exitCode, 0);
}

TEST_F(OddAnswers, ADripOfHeadersIsGivenUp) {
  OddServer server({{httpAnswer("200 OK", {"X-Long: " + image.substr(0, 1000)}, ""), true, 20}});
  configure(server.url(), "stall_timeout_s = 1\nmax_retries = 0");

  expectFailure(download(), "stalled", "sent nothing for 1 s");
}

TEST_F(OddAnswers, AStallIsTakenUpAgain) {
  OddServer server({{firstHalf(image), false}, {range(image, 100000, 200000)}});
  configure(server.url(), "stall_timeout_s = 1\nmax_retries = 1");

  const ProgramResult result = runProgram({{FW_DOWNLOAD_PROGRAM, kWifi}, "/", 0, {"FW_UPDATE_LOG=stderr"}});

  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.error, HasSubstr("W FWUPDATE download of wifiempfw: "));
  EXPECT_THAT(result.error, HasSubstr(" It is taken up again.\n"));
  EXPECT_TRUE(readFile(kImage) == image);
  EXPECT_THAT(server.requests().back(), HasSubstr("Range: bytes=100000-\r\n"));
}

TEST_F(OddAnswers, StallsWhereEverySpeedIsGoodEnough) {
  OddServer server({{firstHalf(image), false}});
  configure(server.url(), "stall_timeout_s = 1\nmin_speed_kib_s = 0\nmax_retries = 0");

  expectFailure(download(), "stalled", "sent nothing for 1 s");
}

TEST_F(OddAnswers, TwoLengthsThatDiffer) {
  OddServer server({{httpAnswer("200 OK", {length(100), length(image.size()), kTag}, image)},
                    {httpAnswer("200 OK", {length(image.size()), length(image.size()), kTag}, image)}});
  configure(server.url());

  expectFailure(download(), "protocol", "announced two different lengths");

  EXPECT_THAT(files(), IsEmpty());
  EXPECT_EQ(download().exitCode, 0);
}

TEST_F(OddAnswers, ControlCharactersInAHeader) {
  for (const char* header : {"ETag: \"one\rX-More: 1\"", "X-Other: \x1B[2J", "ETag: \"one\"\r"}) {
    OddServer server({{httpAnswer("200 OK", {length(image.size()), header}, image)}});
    configure(server.url());

    expectFailure(download(), "protocol", "a header with a control character");

    EXPECT_THAT(files(), IsEmpty()) << header;
  }
}

// A note beside the part makes a header of the request.
TEST_F(OddAnswers, ANoteWithALineBreakInItsMarkIsNotBelieved) {
  OddServer server({{whole(image)}});
  configure(server.url());
  writeFile(kPart, image.substr(0, 1000));
  writeFile(kInfo,
            "{\"boot\": \"\", \"synced\": 1000, \"total\": 200000, \"validator\": "
            "\"\\\"a\\\"\\r\\nX-Injected: 1\", \"url\": \"" +
                server.url() + kWifi + ".img\"}");

  EXPECT_EQ(download().exitCode, 0);

  EXPECT_THAT(server.requests(), ElementsAre(Not(HasSubstr("X-Injected"))));
  EXPECT_TRUE(readFile(kImage) == image);
}

// Hints and other answers that come before the real one say nothing about it.
TEST_F(OddAnswers, AnInterimAnswerCountsForNothing) {
  const std::string interim = "HTTP/1.1 103 Early Hints\r\nETag: \"hint\"\r\nContent-Length: 5\r\n\r\n";
  OddServer server({{interim + httpAnswer("200 OK", {length(image.size())}, image.substr(0, 100))},
                    {interim + httpAnswer("200 OK", {length(image.size())}, image)}});
  configure(server.url());

  expectFailure(download(), "incomplete", "stopped after 100 bytes of the 200000 bytes");

  EXPECT_THAT(files(), IsEmpty());  // no mark, so it cannot be continued
  EXPECT_EQ(download().exitCode, 0);
  EXPECT_TRUE(readFile(kImage) == image);
}

TEST_F(OddAnswers, TooBigByItsOwnWord) {
  OddServer server({{httpAnswer("200 OK", {length(1048577), kTag}, image)}});
  configure(server.url(), "max_size_mib = 1");

  expectFailure(download(), "too-big", "larger than the 1048576 bytes that are allowed");

  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(OddAnswers, TooBigWithoutAWord) {
  OddServer server({{chunked(makeImage(1048577))}});
  configure(server.url(), "max_size_mib = 1");

  expectFailure(download(), "too-big", "larger than the 1048576 bytes that are allowed");

  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(OddAnswers, TheDiskFillsUpOnTheWay) {
  limitSpace();
  OddServer server({{chunked(makeImage(4U * 1024 * 1024))}});
  configure(server.url());

  expectFailure(download(), "no-space", "No space left on device");

  EXPECT_THAT(files(), IsEmpty());
}

std::string redirect(const std::string& target) {
  return httpAnswer("302 Found", {"Location: " + target, length(5)}, "moved");
}

TEST_F(OddAnswers, ARedirectToTheSameHostIsFollowed) {
  OddServer server({{redirect("/elsewhere/x")}, {whole(image)}});
  configure(server.url());

  EXPECT_EQ(download().exitCode, 0);

  EXPECT_THAT(server.requests().back(), HasSubstr("GET /elsewhere/x "));
  EXPECT_TRUE(readFile(kImage) == image);
}

TEST_F(OddAnswers, ARedirectToAnotherHostNeedsPermission) {
  OddServer other({{whole(image)}});
  std::string target = other.url() + "x";
  target.replace(target.find("127.0.0.1"), 9, "localhost");
  OddServer server({{redirect(target)}, {redirect(target)}});
  configure(server.url());

  expectFailure(download(), "redirect", "redirects to another host, localhost");

  EXPECT_THAT(other.requests(), IsEmpty());
  EXPECT_THAT(files(), IsEmpty());
  configure(server.url(), "redirect_hosts = example.org localhost");
  EXPECT_EQ(download().exitCode, 0);
}

TEST_F(OddAnswers, ARedirectToAFileIsRefused) {
  OddServer server({{redirect("file:///etc/passwd")}});
  configure(server.url());

  expectFailure(download(), "redirect", "redirects to file:///etc/passwd");

  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(OddAnswers, RedirectsWithoutAnEndAreRefused) {
  OddServer server({{redirect("/a")}, {redirect("/b")}, {redirect("/c")}});
  configure(server.url(), "max_redirects = 2");

  expectFailure(download(), "redirect", "redirects more than 2 times");

  EXPECT_THAT(server.requests(), SizeIs(3));
}

}  // namespace
