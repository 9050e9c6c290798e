#!/usr/bin/env python3
"""Writes the scene of the detection example: objects.csv, proposals.csv, and expected.csv, the boxes that should survive.

The expected boxes come from this script's own arithmetic, in f64 and without opkit. It refuses a scene in which rounding
could decide: every score, size and overlap keeps a distance from its threshold.
"""

import csv
import math
import pathlib
import random

WIDTH, HEIGHT = 160, 120
OVERLAP, SCORE, MIN_HEIGHT, MIN_WIDTH = 0.5, 0.3, 6, 8

# class, x1, y1, x2, y2. Two of class 0 touch each other; the second of class 1 overlaps one of them; one leaves the image.
OBJECTS = [
    (0, 12, 20, 51, 59),
    (0, 40, 30, 83, 67),
    (1, 50, 24, 73, 75),
    (1, 104, 14, 145, 41),
    (0, 118, 70, 165, 111),
]
FIELDS = ("x1", "y1", "x2", "y2")


def size(lo, hi):
    return hi - lo + 1


def encode(lo, hi, want_lo, want_hi):
    """Shift and log size that turn the edges lo, hi into the wanted ones."""
    have = size(lo, hi)
    return ((want_lo + want_hi) / 2 - (lo + have / 2)) / have, math.log((want_hi - want_lo) / have)


def decode(lo, hi, shift, log_size, limit):
    have = size(lo, hi)
    centre = lo + have / 2 + have * shift
    half = have * math.exp(log_size) / 2
    return [min(max(edge, 0), limit) for edge in (centre - half, centre + half)]


def iou(a, b):
    width = max(size(max(a[0], b[0]), min(a[2], b[2])), 0)
    height = max(size(max(a[1], b[1]), min(a[3], b[3])), 0)
    inter = width * height
    area = sum(size(box[0], box[2]) * size(box[1], box[3]) for box in (a, b))
    return inter / (area - inter)


def make_proposals(rng):
    low = [score / 100 for score in rng.sample(range(1, 29), 28)]     # below the threshold, each used once
    high = [score / 100 for score in rng.sample(range(35, 99), 17)]  # above it
    proposals = []

    def add(cls, box, target, score):
        x1, y1, x2, y2 = box
        deltas = [(0, 0, 0, 0), (0, 0, 0, 0)]
        dx, dw = encode(x1, x2, target[0], target[2])
        dy, dh = encode(y1, y2, target[1], target[3])
        deltas[cls] = (round(dx, 3), round(dy, 3), round(dw, 3), round(dh, 3))
        row = list(box) + list(deltas[0]) + list(deltas[1])
        row += [score if c == cls else low.pop() for c in (0, 1)]
        proposals.append(row)

    for cls, *box in OBJECTS:
        for _ in range(3):  # near the object, with deltas that lead nearly to it
            near = [edge + rng.randint(-4, 4) for edge in box]
            target = [edge + rng.choice((-1.5, -1, 0, 1, 1.5)) for edge in box]
            add(cls, near, target, high.pop())
    add(0, [80, 84, 89, 93], [80, 84, 86, 93], high.pop())    # too narrow
    add(1, [20, 90, 49, 99], [20, 92, 49, 96.5], high.pop())  # too low
    add(1, [90, 60, 109, 89], [90, 60, 109, 89], low.pop())
    add(0, [5, 80, 24, 109], [5, 80, 24, 109], low.pop())
    rng.shuffle(proposals)
    return proposals


def far(value, limit, distance):
    if abs(value - limit) < distance:
        raise SystemExit(f"{value} is too near to {limit}")


def survivors(proposals, cls):
    boxes = []
    for row in proposals:
        x1, y1, x2, y2 = row[:4]
        dx, dy, dw, dh = row[4 + 4 * cls : 8 + 4 * cls]
        left, right = decode(x1, x2, dx, dw, WIDTH - 1)
        top, bottom = decode(y1, y2, dy, dh, HEIGHT - 1)
        score = row[12 + cls]
        far(score, SCORE, 0.01)
        far(right - left, MIN_WIDTH, 0.1)
        far(bottom - top, MIN_HEIGHT, 0.1)
        if score >= SCORE and right - left > MIN_WIDTH and bottom - top > MIN_HEIGHT:
            boxes.append((left, top, right, bottom, score))
    boxes.sort(key=lambda box: -box[4])
    kept = []
    for box in boxes:
        overlaps = [iou(box, other) for other in kept]
        for overlap in overlaps:
            far(overlap, OVERLAP, 0.02)
        if all(overlap <= OVERLAP for overlap in overlaps):
            kept.append(box)
    return kept


def write(name, header, rows):
    with open(pathlib.Path(__file__).parent / "data" / name, "w", newline="") as file:
        writer = csv.writer(file, lineterminator="\n")
        writer.writerow(header)
        writer.writerows(rows)


def main():
    proposals = make_proposals(random.Random(7))
    deltas = [f"{delta}{cls}" for cls in (0, 1) for delta in ("dx", "dy", "dw", "dh")]
    write("objects.csv", ("class", *FIELDS), OBJECTS)
    write("proposals.csv", (*FIELDS, *deltas, "score0", "score1"), proposals)
    expected = [(cls, *(f"{value:.4f}" for value in box)) for cls in (0, 1) for box in survivors(proposals, cls)]
    write("expected.csv", ("class", *FIELDS, "score"), expected)


main()
