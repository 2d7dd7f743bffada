#include "batch/capture_list.h"

#include <gtest/gtest.h>

#include "test_support.h"

namespace {

TEST(read_capture_list, ColumnsQuotingAndDefaults) {
  TempDir dir;
  std::ofstream(dir.file("l.csv")) << "input,reference,id,height\r\n"
                                   << "\"shots/a,1.jpg\",,,720\r\n\n"
                                   << "b.png,\"r \"\"2\"\".yuv\",bee,\r\n";
  ReferenceFrame defaults;
  defaults.path = "ref.yuv";
  const std::vector<CaptureJob> jobs = read_capture_list(dir.file("l.csv"), defaults);
  ASSERT_EQ(jobs.size(), 2u);
  // The id defaults to the input's stem, empty values to the defaults.
  EXPECT_TRUE(jobs[0].input == "shots/a,1.jpg" && jobs[0].id == "a,1" && jobs[0].reference.path == "ref.yuv" &&
              jobs[0].reference.height == 720);
  EXPECT_TRUE(jobs[1].line == 4 && jobs[1].id == "bee" && jobs[1].reference.path == "r \"2\".yuv" &&
              jobs[1].reference.height == 1080);
  EXPECT_EQ(shard_of(jobs, 2, 2)[0].id, "bee");
}

// Every list that cannot run is refused before any capture, naming the line.
TEST(read_capture_list, BadListsNameTheLine) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"input,width\na.jpg\n", ":2: 1 values, the header has 2"},
      {"input,width\na.jpg,19x\n", ":2: width '19x' is not a whole number from 1 to 65535"},
      {"input,frame_number\na.jpg,99999999999\n", ":2: frame_number '99999999999' is not a whole number from -1 to 2147483647"},
      {"input\nx/a.jpg\ny/a.png\n", ":3: id 'a' is already the id of line 2"},
      {"input,id\na.jpg,../up\n", ":2: id '../up' is not a plain file name"},
      {"input,id\na.jpg,..\n", ":2: id '..' is not a plain file name"},
      {"input\nshots/\n", ":2: an empty id"},
      {"input,id\na.jpg,summary.csv\n", ":2: id 'summary.csv' is the name of a summary file"},
      {"input,colour\na.jpg,red\n", ":1: unknown column 'colour'"},
      {"id\nx\n", ":1: no column 'input'"},
      {"input\n\"a.jpg\n", ":2: a quoted field is not closed"},
      {"input\n\"a\"b.jpg\n", ":2: text after a closing quote"},
      {std::string("input\na\0.jpg\n", 13), ":2: a NUL byte"},
      {"", ":1: no header row"},
      {"input,id\na.jpg," + std::string(256, 'i') + "\n",
       ":2: id 'iiiiiiiiiiiiiiiiiiiiiiii...' is 256 bytes long, more than a file name may be (255)"},
  };
  TempDir dir;
  ReferenceFrame defaults;
  defaults.path = "ref.yuv";
  // The refusal's text, or "accepted".
  auto refusal = [&](const std::string& text, const ReferenceFrame& reference) -> std::string {
    write_bytes(dir.file("l.csv"), {text.begin(), text.end()});
    try {
      read_capture_list(dir.file("l.csv"), reference);
    } catch (const ListError& e) {
      return e.what();
    }
    return "accepted";
  };
  for (const auto& [text, message] : cases) EXPECT_EQ(refusal(text, defaults), dir.file("l.csv") + message);
  EXPECT_EQ(refusal("input\na\n", ReferenceFrame()),
            dir.file("l.csv") + ":2: no reference (column 'reference' or --reference-file)");
  EXPECT_THROW(read_capture_list(dir.file("none.csv"), defaults), ListError);
  EXPECT_EQ(refusal("\xEF\xBB\xBFinput,id\na.jpg,\n", defaults), "accepted");  // a spreadsheet's byte-order mark
  try {
    read_capture_list(dir.path().string(), defaults);
    ADD_FAILURE() << "a folder was read as a list";
  } catch (const ListError& e) {
    EXPECT_EQ(std::string(e.what()), "the list " + dir.path().string() + " is a folder");
  }
}

}  // namespace
