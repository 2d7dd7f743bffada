#!/usr/bin/env python3
"""Largest error over the whole frame of one result slot, in reference pixels.

    bench/frame_error.py GRID RESULT_FOLDER SLOT

GRID is framealign-sim's grid.txt (reference x y, true capture X Y). The slot's
mapping comes from mapping_SLOT.txt when the folder has one (framealign-batch
--refine), else from the homography of pts_SLOT.txt. Each true capture point
is taken back to the reference through the slot's mapping and compared with
its reference point. Prints the largest and the mean error.
"""
import math
import sys


def solve3(a, b):
    """Solves the 3 x 3 system a x = b (Cramer's rule)."""
    def det(m):
        return (m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1])
                - m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0])
                + m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]))
    d = det(a)
    out = []
    for i in range(3):
        m = [row[:] for row in a]
        for r in range(3):
            m[r][i] = b[r]
        out.append(det(m) / d)
    return out


def inverse(h):
    columns = [solve3(h, [1 if r == c else 0 for r in range(3)]) for c in range(3)]
    return [[columns[c][r] for c in range(3)] for r in range(3)]


def apply(h, x, y):
    w = h[2][0] * x + h[2][1] * y + h[2][2]
    return ((h[0][0] * x + h[0][1] * y + h[0][2]) / w, (h[1][0] * x + h[1][1] * y + h[1][2]) / w)


def homography_from_corners(width, height, corners):
    """Reference to capture, from TL TR BL BR (8 unknowns, h22 = 1)."""
    frame = [(0, 0), (width, 0), (0, height), (width, height)]
    rows, rhs = [], []
    for (x, y), (u, v) in zip(frame, zip(corners[0::2], corners[1::2])):
        rows.append([x, y, 1, 0, 0, 0, -u * x, -u * y]); rhs.append(u)
        rows.append([0, 0, 0, x, y, 1, -v * x, -v * y]); rhs.append(v)
    n = 8
    m = [r + [b] for r, b in zip(rows, rhs)]
    for c in range(n):
        p = max(range(c, n), key=lambda r: abs(m[r][c]))
        m[c], m[p] = m[p], m[c]
        for r in range(n):
            if r != c:
                f = m[r][c] / m[c][c]
                m[r] = [a - f * b for a, b in zip(m[r], m[c])]
    h = [m[i][n] / m[i][i] for i in range(n)] + [1.0]
    return [h[0:3], h[3:6], h[6:9]]


def read_mapping(path):
    values = {}
    for line in open(path):
        if line.startswith("#") or not line.strip():
            continue
        key, *rest = line.split()
        values[key] = rest
    h = [float(v) for v in values["homography"]]
    return {"h": [h[0:3], h[3:6], h[6:9]], "centre": [float(v) for v in values["centre"]],
            "scale": float(values["scale"][0]), "k1": float(values["k1"][0]), "k2": float(values["k2"][0])}


def to_reference(m, hinv, x, y):
    cx, cy = m["centre"]
    dx, dy = x - cx, y - cy
    rd = math.hypot(dx, dy) / m["scale"]
    r = rd
    for _ in range(50):  # Newton on r (1 + k1 r^2 + k2 r^4) = rd
        f = r * (1 + m["k1"] * r * r + m["k2"] * r ** 4) - rd
        r -= f / (1 + 3 * m["k1"] * r * r + 5 * m["k2"] * r ** 4)
    ratio = r / rd if rd > 0 else 1.0
    return apply(hinv, cx + dx * ratio, cy + dy * ratio)


def main():
    grid_path, folder, slot = sys.argv[1], sys.argv[2], sys.argv[3]
    grid = [[float(v) for v in line.split()] for line in open(grid_path) if line.strip()]
    width, height = max(g[0] for g in grid), max(g[1] for g in grid)
    try:
        m = read_mapping(f"{folder}/mapping_{slot}.txt")
    except FileNotFoundError:
        corners = [float(v) for v in open(f"{folder}/pts_{slot}.txt").read().split()[:8]]
        m = {"h": homography_from_corners(width, height, corners), "centre": [0, 0], "scale": 1,
             "k1": 0.0, "k2": 0.0}
    hinv = inverse(m["h"])
    errors = []
    for x, y, cx, cy in grid:
        rx, ry = to_reference(m, hinv, cx, cy)
        errors.append(math.hypot(rx - x, ry - y))
    print(f"{max(errors):.4f} {sum(errors) / len(errors):.4f}")


main()
