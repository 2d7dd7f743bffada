"""The Python module on simulator captures, against the command-line program."""
import csv
import os
import pathlib
import pickle
import signal
import subprocess
import tempfile
import threading
import time
import unittest

import numpy as np

import framealign

BUILD = os.environ["FRAMEALIGN_BUILD"]  # the programs; PYTHONPATH holds the module and examples/


def files(folder):
    return {name: open(os.path.join(folder, name), "rb").read() for name in sorted(os.listdir(folder))}


class Module(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="framealign_py_")
        subprocess.run([f"{BUILD}/framealign-sim", "--out", f"{cls.dir}/s1", "--width", "640", "--height", "360",
                        "--capture-width", "960", "--capture-height", "720", "--seed", "1"],
                       check=True, stdout=subprocess.DEVNULL)
        cls.ref = framealign.Reference.from_yuv(f"{cls.dir}/s1/reference.yuv", width=640, height=360)
        cls.capture = framealign.read_capture(f"{cls.dir}/s1/capture.jpg")
        cls.result = framealign.align(cls.capture, cls.ref)

    def test_numbers_and_files_are_the_programs(self):
        r = self.result
        truth = np.loadtxt(f"{self.dir}/s1/corners.txt").reshape(4, 2)
        self.assertEqual(r.status, "aligned")
        self.assertLess(np.abs(r.corners - truth).max(), 2.0)
        self.assertEqual(r.slot_scores[r.best_slot], r.score)
        frame = np.array([[0, 0, 1], [640, 0, 1], [0, 360, 1], [640, 360, 1]], float).T
        mapped = r.homography @ frame
        np.testing.assert_allclose((mapped[:2] / mapped[2]).T, r.corners, atol=1e-3)
        self.assertEqual([f.shape for f in r.frames], [(360, 640)] * len(r.frames))
        r.save(f"{self.dir}/py")
        subprocess.run([f"{BUILD}/framealign", "--input-file", f"{self.dir}/s1/capture.jpg", "--reference-file",
                        f"{self.dir}/s1/reference.yuv", "--width", "640", "--height", "360", "--result-folder",
                        f"{self.dir}/cli"], check=True, stdout=subprocess.DEVNULL)
        self.assertEqual(files(f"{self.dir}/py"), files(f"{self.dir}/cli"))
        # Slot 0 is the warp by its corners, finished as variant 0; a pickled reference aligns the same.
        row = np.loadtxt(f"{self.dir}/cli/pts_0.txt").reshape(4, 2)
        np.testing.assert_array_equal(framealign.warp_by_corners(self.capture, row, 640, 360), r.frames[0])
        self.assertEqual(framealign.align(self.capture, pickle.loads(pickle.dumps(self.ref))).score, r.score)
        # Refined: the search's scores, corners nearer the truth, an estimate only then.
        refined = framealign.align(self.capture, self.ref, refine=True)
        self.assertEqual(refined.slot_scores, r.slot_scores)
        self.assertIsNone(r.est_error_px)
        self.assertLess(np.abs(refined.corners - truth).max(), 0.5)
        self.assertLess(refined.est_error_px, 1.0)
        # Where the matches lie, and how far the refined geometry leaves them.
        self.assertEqual(r.matches.shape[1], 3)
        self.assertTrue(np.isnan(r.matches[:, 2]).all())
        self.assertLess(np.median(refined.matches[:, 2]), 1.0)

    def test_lens_mapping_round_trips_and_follows_the_truth(self):
        subprocess.run([f"{BUILD}/framealign-sim", "--out", f"{self.dir}/lens", "--width", "640", "--height", "360",
                        "--capture-width", "960", "--capture-height", "720", "--seed", "15", "--barrel", "0.08",
                        "--screen-scale", "0.85"], check=True, stdout=subprocess.DEVNULL)
        ref = framealign.Reference.from_yuv(f"{self.dir}/lens/reference.yuv", width=640, height=360)
        r = framealign.align(framealign.read_capture(f"{self.dir}/lens/capture.jpg"), ref, refine=True)
        self.assertEqual(r.mapping["model"], "lens")
        grid = np.loadtxt(f"{self.dir}/lens/grid.txt")
        seen = r.to_capture(grid[:, :2])
        self.assertLess(np.abs(seen - grid[:, 2:]).max(), 3.0)
        np.testing.assert_allclose(r.to_reference(seen), grid[:, :2], atol=1e-6)
        with self.assertRaisesRegex(ValueError, "N x 2"):
            r.to_capture(np.zeros(3))
        r.save(f"{self.dir}/lens_out")
        self.assertIn("model lens", open(f"{self.dir}/lens_out/mapping_{r.best_slot}.txt").read())

    def test_bad_arguments_and_failures_raise(self):
        for bad, error, words in [(self.capture.astype(np.int16), TypeError, "capture must be a numpy array"),
                                  (self.capture[None], ValueError, "capture must have two dimensions"),
                                  (self.capture[:, ::2], ValueError, "capture must be C-contiguous")]:
            with self.assertRaisesRegex(error, words):
                framealign.align(bad, self.ref)
        with self.assertRaisesRegex(RuntimeError, "No features found to match against"):
            framealign.align(np.full((300, 400), 90, np.uint8), self.ref)
        with self.assertRaisesRegex(RuntimeError, "does not exist, nor its feature cache"):
            framealign.Reference.from_yuv(f"{self.dir}/none.yuv", 640, 360)

    def test_every_option_as_keyword_or_as_record(self):
        corners = np.loadtxt(f"{self.dir}/s1/corners.txt").reshape(4, 2)
        options = framealign.AlignOptions(corners=corners, outputs="slow", crop_width=640, crop_height=320)
        by_record = framealign.align(self.capture, self.ref, options=options)
        by_keywords = framealign.align(self.capture, self.ref, corners=corners, outputs="slow", crop_width=640,
                                       crop_height=320)
        self.assertEqual((by_record.status, len(by_record.frames)), ("aligned", 3))
        np.testing.assert_array_equal(by_record.corners, corners)
        for a, b in zip(by_record.frames, by_keywords.frames):
            np.testing.assert_array_equal(a, b)
        self.assertTrue((by_record.frames[1][320:] == 0).all())  # variant 0, padded to the crop's aspect below
        with self.assertRaisesRegex(ValueError, "either as an AlignOptions or as keywords"):
            framealign.align(self.capture, self.ref, refine=True, options=options)
        self.assertEqual(framealign.align(self.capture, self.ref, no_rectify=True).status, "unrectified")
        self.assertTrue(framealign.AlignOptions(fast=True).refines())
        self.assertIs(framealign.Result, framealign.AlignResult)
        # A hint 3% off is refined to the truth; one on empty wall is said unverified, with its reason.
        hint = corners + np.array([[12, 9], [-12, 9], [12, -9], [-12, -9]])
        hinted = framealign.align(self.capture, self.ref, options=framealign.AlignOptions(hint=hint))
        self.assertEqual((hinted.status, hinted.path, hinted.reason), ("aligned", "hint", ""))
        self.assertLess(np.abs(hinted.corners - corners).max(), 1.0)
        self.assertLess(hinted.est_error_px, 1.0)
        wall = np.array([[5, 5], [200, 5], [5, 120], [200, 120]], float)
        unverified = pickle.loads(pickle.dumps(framealign.align(self.capture, self.ref, hint=wall)))
        self.assertEqual(unverified.status, "hint_unverified")
        self.assertIn("matches with the reference where the hint puts the screen", unverified.reason)
        np.testing.assert_array_equal(unverified.corners, wall)
        with self.assertRaisesRegex(RuntimeError, "not both"):
            framealign.align(self.capture, self.ref, hint=hint, corners=corners)

    def test_pickles_and_states_are_checked(self):
        for protocol in range(pickle.HIGHEST_PROTOCOL + 1):
            self.assertEqual(pickle.loads(pickle.dumps(self.ref, protocol)).keypoints, self.ref.keypoints)
        state = self.ref.__reduce__()[1][0]
        for damaged in [state[:3] + (state[3][:-5],) + state[4:],        # a keypoint fewer than descriptor rows
                        (state[0], state[1], b"") + state[3:],             # no frame
                        state[:5] + (state[5] + 1,) + state[6:]]:          # rows the data cannot fill
            with self.assertRaises((ValueError, framealign.Error)):
                framealign.Reference(damaged)
        with self.assertRaisesRegex(ValueError, "larger than the library can hold"):
            framealign.align(np.zeros((1, 2**32 + 16), np.uint8), self.ref)
        for outputs, words in [([9], "must be 0, 1, 2, 3, 4, fast, medium, slow, or slowest"),
                               ("3,bogus", "Invalid --output value: bogus")]:
            with self.assertRaisesRegex(ValueError, words):
                framealign.align(self.capture, self.ref, outputs=outputs)

    def test_paths_presets_and_repr(self):
        ref = framealign.Reference.from_yuv(pathlib.Path(self.dir) / "s1" / "reference.yuv", 640, 360)
        capture = framealign.read_capture(pathlib.Path(self.dir, "s1", "capture.jpg"))
        r = framealign.align(capture, ref, outputs="slow")
        self.assertEqual(repr(r), f"<framealign.AlignResult status='aligned' score={r.score!r} "
                                  f"best_slot={r.best_slot} model='homography' frames={len(r.frames)}>")
        for protocol in range(pickle.HIGHEST_PROTOCOL + 1):
            back = pickle.loads(pickle.dumps(r, protocol))
            self.assertEqual(repr(back), repr(r))
            np.testing.assert_array_equal(back.corners, r.corners)
            np.testing.assert_array_equal(back.matches, r.matches)  # NaN residuals included
            self.assertTrue(all((a == b).all() for a, b in zip(back.frames, r.frames)))
        back.save(pathlib.Path(self.dir, "unpickled"))
        state = r.__reduce__()[1][0]
        for damaged in [state[:-1], b"framealign result 1\n" + b"\xff" * 8, state + b"x"]:
            with self.assertRaisesRegex(framealign.Error, "not a framealign result"):
                framealign.Result(damaged)
        r.save(pathlib.Path(self.dir, "as_path"))
        self.result.save(f"{self.dir}/as_text")
        self.assertEqual(files(f"{self.dir}/as_path"), files(f"{self.dir}/as_text"))
        self.assertEqual(files(f"{self.dir}/unpickled"), files(f"{self.dir}/as_text"))

    def test_ctrl_c_stops_an_alignment_that_holds_no_gil(self):
        subprocess.run([f"{BUILD}/framealign-sim", "--out", f"{self.dir}/big", "--seed", "2"],
                       check=True, stdout=subprocess.DEVNULL)
        ref = framealign.Reference.from_yuv(f"{self.dir}/big/reference.yuv")
        capture = framealign.read_capture(f"{self.dir}/big/capture.jpg")
        threading.Timer(0.5, os.kill, (os.getpid(), signal.SIGINT)).start()
        # The work done, not the time it took: a busy machine stretches the
        # wall clock, not the process's CPU time. Left alone, this search
        # costs several times the bound.
        start = time.process_time()
        with self.assertRaises(KeyboardInterrupt):
            framealign.align(capture, ref, advanced=True)
        self.assertLess(time.process_time() - start, 10.0)

    def test_dask_example_on_a_local_cluster(self):
        from dask.distributed import Client, LocalCluster
        import dask_align
        paths = [f"{self.dir}/s1/capture.jpg", f"{self.dir}/none.jpg"]
        with Client(LocalCluster(n_workers=2, threads_per_worker=1, processes=True)) as client:
            results = dask_align.align_all(client, self.ref, paths)
        self.assertEqual(results[0].score, self.result.score)
        self.assertEqual(results[0].frames[0].tobytes(), self.result.frames[0].tobytes())
        self.assertIn("Failed to read image file", dask_align.row(paths[1], results[1])["message"])

    def test_video_frames_are_the_batchs(self):
        clip = f"{self.dir}/clip"
        subprocess.run([f"{BUILD}/framealign-sim", "--video", "--out", clip, "--width", "640", "--height", "360",
                        "--capture-width", "960", "--capture-height", "540", "--seconds", "0.3",
                        "--reference-frames", "10"], check=True, stdout=subprocess.DEVNULL)
        frames = list(framealign.align_video(f"{clip}/capture.mp4", f"{clip}/reference.yuv", 640, 360, frames=(1, 7)))
        subprocess.run([f"{BUILD}/framealign-batch", "--video", f"{clip}/capture.mp4", "--reference-file",
                        f"{clip}/reference.yuv", "--width", "640", "--height", "360", "--fast", "--frames", "1:7",
                        "--result-root", f"{self.dir}/videos", "--quiet"], check=True)
        rows = list(csv.DictReader(open(f"{self.dir}/videos/summary.csv")))
        truth = {row["capture_frame"]: row for row in csv.DictReader(open(f"{clip}/truth.csv"))}
        self.assertEqual([f.capture_frame for f in frames], list(range(1, 8)))
        for frame, row in zip(frames, rows):
            self.assertEqual(str(frame.ref_frame), row["ref_frame"])
            self.assertEqual(str(frame.ref_frame), truth[row["capture_frame"]]["ref_frame"])
            self.assertEqual(";".join(map(str, frame.ref_frames)), row["ref_frames"])
            self.assertEqual(frame.mixed, row["mixed"] == "1")
            self.assertEqual(";".join(f"{r:.1f}" for r in frame.tear_rows), row["tear_rows"])
            self.assertEqual(frame.unsure, row["unsure"])
            self.assertEqual(frame.shown.shape, (360, 640))
            self.assertEqual(frame.shown_rows[0][0], 0)
            self.assertEqual(frame.shown_rows[-1][1], 359)
            self.assertEqual(sorted({f for band in frame.shown_rows for f in band[2]}), sorted(frame.ref_frames))
            self.assertEqual(frame.result.path, row["path"])
            np.testing.assert_allclose(frame.result.corners.ravel(), [float(row[c]) for c in
                                       ("x1", "y1", "x2", "y2", "x3", "y3", "x4", "y4")], atol=1e-5)
        self.assertEqual(frames[0].capture.shape, (540, 960))
        # Past the video's end: no frame, and the length it was found to hold.
        beyond = framealign.align_video(f"{clip}/capture.mp4", f"{clip}/reference.yuv", 640, 360, frames=(500, 600))
        self.assertEqual((beyond.length, list(beyond), beyond.length), (-1, [], len(truth)))
        self.assertEqual([stage for stage, _ in beyond.stage_seconds],
                         ["decode", "identify", "track", "search", "edges", "rows"])
        mixed = next(f for f in frames if f.mixed)
        os.makedirs(f"{self.dir}/shown")
        mixed.save_shown(f"{self.dir}/shown")
        slot = mixed.result.best_slot
        self.assertEqual(np.fromfile(f"{self.dir}/shown/shown_{slot}__640xx360.yuv", np.uint8).tobytes(),
                         mixed.shown.tobytes())
        with self.assertRaises(framealign.Error):
            framealign.align_video(f"{clip}/capture.mp4", f"{clip}/reference.yuv", 640, 360, reference_frames=(5, 40))


if __name__ == "__main__":
    unittest.main()
