// framealign-batch's promises about what it keeps: nothing it did not
// make is touched, caches serve only their own picture, a stopped, killed
// or full-disk run ends as the whole run would, shards merge into it.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "cli/batch_fixture.h"

namespace {

// The batch never touches what it did not make, keeps an earlier result
// when a rerun fails, lets one run at a time use a root, skips a torn
// journal line with a warning, and retries error rows; the newest row of
// any journal wins.
TEST_F(Batch, KeepsWhatItDidNotMakeAndWhatWasFinished) {
  std::filesystem::create_directories(dir_.file("guarded/cap2"));
  write_bytes(dir_.file("guarded/cap2/mine.txt"), {'m'});
  ToolRun r = run_tool(args("guarded"), dir_, kBatch);
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(summary(dir_.file("guarded/summary.csv")).find("guarded/cap2 was not made by framealign-batch"),
            std::string::npos);
  EXPECT_EQ(read_folder(dir_.file("guarded/cap2")).size(), 1u);
  const Folder cap1 = read_folder(dir_.file("guarded/cap1"));
  std::ofstream(dir_.file("guarded/.journal"), std::ios::app) << "cap1,./c1.jpg,alig";  // cut by a kill
  {
    const int fd = ::open(dir_.file("guarded/.lock").c_str(), O_RDWR);
    ASSERT_EQ(::flock(fd, LOCK_EX | LOCK_NB), 0);
    r = run_tool(args("guarded"), dir_, kBatch);
    EXPECT_EQ(r.exit_code, 2);
    EXPECT_NE(r.err.find("guarded/.lock is held by process "), std::string::npos) << r.err;
    ::close(fd);
  }
  std::vector<std::string> mistyped = args("guarded", {"--force"});
  *std::find(mistyped.begin(), mistyped.end(), "./ref.yuv") = "./nope.yuv";
  r = run_tool(mistyped, dir_, kBatch);
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("skipping line 5 of guarded/.journal: cut off"), std::string::npos) << r.err;
  EXPECT_TRUE(read_folder(dir_.file("guarded/cap1")) == cap1);
  EXPECT_NE(summary(dir_.file("guarded/summary.csv")).find("(the earlier result in guarded/cap1 is kept)"),
            std::string::npos);
  EXPECT_NE(read_text(dir_.file("guarded/.journal")).find("cap1,./c1.jpg,alig\ncap"), std::string::npos);
  // Shard 1 runs its errors (cap1, cap3) again; its journal is then the
  // newest, so the whole run after it takes cap1 as aligned and runs only
  // the other errors again (cap2, still not the batch's, and cap4).
  EXPECT_EQ(run_tool(args("guarded", {"--shard", "1/2"}), dir_, kBatch).exit_code, 0);
  r = run_tool(args("guarded"), dir_, kBatch);
  EXPECT_NE(r.err.find("4 of 4 captures recorded: 2 aligned, 1 not_found, 1 error; 2 run now"), std::string::npos)
      << r.err;
  EXPECT_EQ(summary(dir_.file("guarded/summary.csv")).find("cap1,./c1.jpg,error"), std::string::npos);
  EXPECT_EQ(read_folder(dir_.file("guarded/cap2")).size(), 1u);
  std::ofstream(dir_.file("other.csv")) << "input,id\n./c2.jpg,cap1\n";  // cap1's id, given to another capture
  r = run_tool({"--list", "other.csv", "--reference-file", "./ref.yuv", "--width", "640", "--height", "360",
                "--result-root", "guarded"}, dir_, kBatch);
  EXPECT_NE(read_text(dir_.file("guarded/summary.csv")).find("guarded/cap1 holds the result of ./c1.jpg, not of ./c2.jpg"),
            std::string::npos) << r.err;
  EXPECT_EQ(run_tool({"--result-root", "", "./c1.jpg", "--reference-file", "./ref.yuv"}, dir_, kBatch).err,
            "framealign-batch: --result-root is empty\n");
}

// A capture's cache serves only the picture it was made from; captures
// that would share cache files are refused before any work.
TEST_F(Batch, CaptureCachesServeOnlyTheirPicture) {
  std::filesystem::create_directories(dir_.file("cc"));
  std::filesystem::copy_file(dir_.file("c1.jpg"), dir_.file("cc/x.jpg"));
  const std::vector<std::string> cached = {"--reference-file", "./ref.yuv", "--width", "640", "--height", "360",
                                           "--capture-cache", "--force", "--result-root", "cached", "./cc/x.jpg"};
  EXPECT_EQ(run_tool(cached, dir_, kBatch).exit_code, 0);
  EXPECT_TRUE(std::filesystem::exists(dir_.file("cc/x_ORIGINAL.ftrs.source")));
  cv::imwrite(dir_.file("cc/x.jpg"), make_reference_frame(960, 720, 77));  // another picture, same name
  EXPECT_EQ(run_tool(cached, dir_, kBatch).exit_code, 0);
  EXPECT_NE(read_text(dir_.file("cached/summary.csv")).find("x,./cc/x.jpg,not_found"), std::string::npos);
  cv::imwrite(dir_.file("cc/x.png"), make_reference_frame(960, 720, 78));
  std::ofstream(dir_.file("clash.csv")) << "input,id\n./cc/x.jpg,a\n./cc/x.png,b\n";
  const ToolRun r = run_tool({"--list", "clash.csv", "--reference-file", "./ref.yuv", "--width", "640", "--height",
                              "360", "--capture-cache", "--result-root", "clash"}, dir_, kBatch);
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_EQ(r.err, "framealign-batch: --capture-cache: ./cc/x.jpg and ./cc/x.png would share the cache files "
                   "./cc/x_<filter>.ftrs; rename one, or run without --capture-cache\n");
}

// Stopped by SIGTERM while its second capture runs, then killed while its
// fourth runs, then run again: the same summary and folders as one whole run.
TEST_F(Batch, ResumesAfterAStopOrAKill) {
  auto journal_rows = [] {
    const std::string text = read_text(dir_.file("resumed/.journal"));
    return std::count(text.begin(), text.end(), '\n');
  };
  for (const auto& [signal, rows, delay_ms] : {std::tuple{SIGTERM, 1, 300}, std::tuple{SIGKILL, 3, 100}}) {
    const pid_t pid = fork();
    if (pid == 0) {
      if (chdir(dir_.path().c_str()) != 0) _exit(127);
      std::vector<std::string> words = args("resumed");
      std::vector<char*> argv = {const_cast<char*>(kBatch.c_str())};
      for (std::string& w : words) argv.push_back(w.data());
      argv.push_back(nullptr);
      execv(kBatch.c_str(), argv.data());
      _exit(127);
    }
    for (int i = 0; i < 6000 && journal_rows() < rows; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms));
    kill(pid, signal);
    int status = 0;
    waitpid(pid, &status, 0);
    if (signal == SIGKILL) {
      EXPECT_TRUE(WIFSIGNALED(status));
    } else {
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 143);  // after the capture in flight
      EXPECT_EQ(journal_rows(), 2);
    }
  }
  ASSERT_EQ(run_tool(args("resumed"), dir_, kBatch).exit_code, 0);
  expect_like_full("resumed");
  EXPECT_TRUE(std::filesystem::is_empty(dir_.file("resumed/.partial")));
}

// A full disk stops the batch with the file and the system's reason; the
// same command then finishes it as one whole run would.
TEST_F(Batch, FullDiskStopsAndTheSameCommandFinishes) {
  setenv("FRAMEALIGN_BATCH_FAULT", "enospc:12", 1);  // while the second capture is put in place
  const ToolRun r = run_tool(args("full_disk"), dir_, kBatch);
  unsetenv("FRAMEALIGN_BATCH_FAULT");
  EXPECT_EQ(r.exit_code, 3);
  EXPECT_NE(r.err.find("framealign-batch: cannot write the journal full_disk/.journal: No space left on device\n"),
            std::string::npos) << r.err;
  ASSERT_EQ(run_tool(args("full_disk"), dir_, kBatch).exit_code, 0);
  expect_like_full("full_disk");
}

// Killed at seeded random moments (any of its file operations), each time
// run again: every final summary and folder is the whole run's.
TEST_F(Batch, KilledAtAnyMomentEndsAsTheWholeRun) {
  std::mt19937 rng(2026);
  for (int trial = 0; trial < 8; ++trial) {
    const std::string root = "killed" + std::to_string(trial);
    const std::string at = "kill:" + std::to_string(std::uniform_int_distribution<int>(1, 34)(rng));
    setenv("FRAMEALIGN_BATCH_FAULT", at.c_str(), 1);
    run_tool(args(root), dir_, kBatch);
    unsetenv("FRAMEALIGN_BATCH_FAULT");
    ASSERT_EQ(run_tool(args(root), dir_, kBatch).exit_code, 0) << at;
    expect_like_full(root);
    EXPECT_TRUE(std::filesystem::is_empty(dir_.file(root + "/.partial"))) << at;
  }
}

// Four shards through GNU parallel on stand-in hosts, two as a Slurm job
// array; the command without --shard then writes the whole summary.
TEST_F(Batch, ShardsMergeIntoTheWholeRun) {
  // parallel's remote worker runs the command through the login's $SHELL,
  // which a real ssh login always sets; CI's environment may not have it.
  std::ofstream(dir_.file("ssh")) << "#!/bin/sh\n# stand-in for ssh: runs the command here, as the host's login would\n"
                                  << "export SHELL=/bin/sh\nshift\n[ \"$1\" = -- ] && shift\nexec sh -c \"$*\"\n";
  std::filesystem::permissions(dir_.file("ssh"), std::filesystem::perms::owner_all);
  // parallel resolves a working directory of "." against $HOME, so the test
  // gives it its own home and an absolute directory, and runs the stand-in
  // through sh in case the temporary directory does not allow executables.
  const std::string here = dir_.path().string();
  std::string command = "cd " + here + " && HOME=" + here + " parallel --will-cite --ssh 'sh " + here +
                        "/ssh' -S 2/a,2/b --workdir " + here + " " + kBatch +
                        " --list list.csv --reference-file ./ref.yuv --width 640 --height 360 --jobs 1 " +
                        "--result-root parallel --shard {}/4 ::: 1 2 3 4 >parallel.log 2>&1";
  ASSERT_EQ(std::system(command.c_str()), 0) << read_text(dir_.file("parallel.log"));
  for (int shard = 1; shard <= 4; ++shard) {
    const std::string shard_summary = "parallel/summary." + std::to_string(shard) + "-of-4.csv";
    ASSERT_TRUE(std::filesystem::exists(dir_.file(shard_summary))) << read_text(dir_.file("parallel.log"));
  }
  for (int task = 1; task <= 2; ++task) {
    command = "cd " + dir_.path().string() + " && SLURM_ARRAY_TASK_ID=" + std::to_string(task) +
              " SLURM_ARRAY_TASK_COUNT=2 FRAMEALIGN_BATCH=" + kBatch + " " + SLURM_SCRIPT + " --list list.csv " +
              "--reference-file ./ref.yuv --width 640 --height 360 --result-root slurm >/dev/null 2>&1";
    ASSERT_EQ(std::system(command.c_str()), 0);
  }
  EXPECT_NE(summary(dir_.file("slurm/summary.1-of-2.csv")).find("cap3,"), std::string::npos);
  for (const std::string root : {"parallel", "slurm"}) {
    const ToolRun merge = run_tool(args(root), dir_, kBatch);
    EXPECT_NE(merge.err.find("4 of 4 captures recorded: 3 aligned, 1 not_found, 0 error; 0 run now"),
              std::string::npos) << merge.err;
    expect_like_full(root);
  }
}

}  // namespace
