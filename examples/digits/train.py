#!/usr/bin/env python3
"""Trains the network of the digits example with nothing but numpy, and writes what the example needs.

Data: the UCI handwritten digits, 1,797 images of 8 x 8 pixels with values 0 to 16, which Debian's python3-sklearn
ships as digits.csv.gz. Every fifth image, counted from the first, is held out and never seen in training.

    conv 3x3, 16 channels - bias - rectifier - max pooling 2x2      [1, 8, 8]  -> [16, 4, 4]
    conv 3x3, 32 channels - bias - rectifier - max pooling 2x2      [16, 4, 4] -> [32, 2, 2]
    dense 128 -> 10

Writes to the data folder: weights/*.npy, the held-out images and labels, and logits.npy, this script's own forward pass
in f64 over the f32 weights: what the C++ side is compared with. Takes about a quarter of a minute on one core. Then
make_model (make_model.cpp) writes the model pair from the weights.
"""

import argparse
import glob
import gzip
import importlib.util
import pathlib

import numpy as np

SEED = 20240
EPOCHS = 60
BATCH = 32
RATE = 2e-3


def find_digits():
    folders = []
    found = importlib.util.find_spec("sklearn")
    if found is not None:
        folders += list(found.submodule_search_locations)
    folders += glob.glob("/usr/lib/python3*/dist-packages/sklearn")
    for folder in folders:
        for name in glob.glob(folder + "/**/digits.csv.gz", recursive=True):
            return name
    raise SystemExit("digits.csv.gz not found; it comes with the Debian package python3-sklearn")


def load_digits():
    with gzip.open(find_digits(), "rt") as file:
        table = np.loadtxt(file, delimiter=",")
    images = table[:, :64].reshape(-1, 1, 8, 8).astype(np.uint8)
    labels = table[:, 64].astype(np.int32)
    assert images.shape == (1797, 1, 8, 8) and images.max() == 16
    held_out = np.arange(len(images)) % 5 == 0
    return images[~held_out], labels[~held_out], images[held_out], labels[held_out]


def columns(x):
    """[N, C, H, W] -> [N, C * 9, H * W], the 3 x 3 surroundings of every pixel, zeros beyond the edge."""
    n, c, h, w = x.shape
    padded = np.pad(x, ((0, 0), (0, 0), (1, 1), (1, 1)))
    windows = [padded[:, :, dy:dy + h, dx:dx + w] for dy in range(3) for dx in range(3)]
    return np.stack(windows, axis=2).reshape(n, c * 9, h * w)


def images_of(cols, shape):
    """The transpose of columns(): adds every window's gradient back to its pixels."""
    n, c, h, w = shape
    padded = np.zeros((n, c, h + 2, w + 2), cols.dtype)
    windows = cols.reshape(n, c, 9, h, w)
    for i in range(9):
        padded[:, :, i // 3:i // 3 + h, i % 3:i % 3 + w] += windows[:, :, i]
    return padded[:, :, 1:-1, 1:-1]


class Block:
    """Convolution, bias, rectifier and 2 x 2 max pooling, forward and backward."""

    def forward(self, x, weight, bias):
        n, _, h, w = x.shape
        out = weight.shape[0]
        self.shape = x.shape
        self.weight = weight
        self.cols = columns(x)
        y = np.matmul(weight.reshape(out, -1), self.cols).reshape(n, out, h, w) + bias
        y = np.where(y > 0, y, y.dtype.type(0))
        tiles = y.reshape(n, out, h // 2, 2, w // 2, 2).transpose(0, 1, 2, 4, 3, 5).reshape(n, out, h // 2, w // 2, 4)
        self.winner = tiles.argmax(axis=-1)
        self.positive = tiles.max(axis=-1) > 0
        return tiles.max(axis=-1)

    def backward(self, grad):
        n, out, h2, w2 = grad.shape
        tiles = np.zeros((n, out, h2, w2, 4), grad.dtype)
        np.put_along_axis(tiles, self.winner[..., None], (grad * self.positive)[..., None], axis=-1)
        dy = tiles.reshape(n, out, h2, w2, 2, 2).transpose(0, 1, 2, 4, 3, 5).reshape(n, out, 4 * h2 * w2)
        dweight = np.matmul(dy, self.cols.transpose(0, 2, 1)).sum(axis=0).reshape(self.weight.shape)
        dbias = dy.sum(axis=(0, 2)).reshape(out, 1, 1)
        dx = images_of(np.matmul(self.weight.reshape(out, -1).T, dy), self.shape)
        return dx, dweight, dbias


def forward(weights, x):
    first, second = Block(), Block()
    x = first.forward(x, weights["conv1_weight"], weights["conv1_bias"])
    x = second.forward(x, weights["conv2_weight"], weights["conv2_bias"])
    flat = x.reshape(len(x), -1)
    return flat @ weights["dense_weight"] + weights["dense_bias"], (first, second, x.shape, flat)


def gradients(weights, x, labels):
    logits, (first, second, shape, flat) = forward(weights, x)
    odds = np.exp(logits - logits.max(axis=1, keepdims=True))
    slope = odds / odds.sum(axis=1, keepdims=True)
    slope[np.arange(len(labels)), labels] -= 1
    slope /= len(labels)
    grads = {"dense_weight": flat.T @ slope, "dense_bias": slope.sum(axis=0)}
    dx = (slope @ weights["dense_weight"].T).reshape(shape)
    dx, grads["conv2_weight"], grads["conv2_bias"] = second.backward(dx)
    _, grads["conv1_weight"], grads["conv1_bias"] = first.backward(dx)
    return grads


def start_weights(rng):
    def normal(*shape, inputs):
        return (rng.standard_normal(shape) * np.sqrt(2 / inputs)).astype(np.float32)

    return {
        "conv1_weight": normal(16, 1, 3, 3, inputs=9),
        "conv1_bias": np.zeros((16, 1, 1), np.float32),
        "conv2_weight": normal(32, 16, 3, 3, inputs=144),
        "conv2_bias": np.zeros((32, 1, 1), np.float32),
        "dense_weight": normal(128, 10, inputs=128),
        "dense_bias": np.zeros(10, np.float32),
    }


def shifted(x, rng):
    """Moves each image by -1, 0 or 1 pixel along one of the axes."""
    moves = rng.integers(0, 6, len(x))
    result = x.copy()
    for move, (axis, step) in enumerate([(2, 1), (2, -1), (3, 1), (3, -1)]):
        chosen = moves == move
        moved = np.roll(x[chosen], step, axis=axis)
        edge = [slice(None)] * 4
        edge[axis] = 0 if step == 1 else -1
        moved[tuple(edge)] = 0
        result[chosen] = moved
    return result


def train(images, labels):
    rng = np.random.default_rng(SEED)
    weights = start_weights(rng)
    mean = {name: np.zeros_like(value) for name, value in weights.items()}
    power = {name: np.zeros_like(value) for name, value in weights.items()}
    step = 0
    for epoch in range(EPOCHS):
        rate = RATE * 0.5 * (1 + np.cos(np.pi * epoch / EPOCHS))
        order = rng.permutation(len(images))
        for begin in range(0, len(order), BATCH):
            chosen = order[begin:begin + BATCH]
            step += 1
            for name, grad in gradients(weights, shifted(images[chosen], rng), labels[chosen]).items():
                mean[name] = 0.9 * mean[name] + 0.1 * grad
                power[name] = 0.999 * power[name] + 0.001 * grad * grad
                scale = rate * np.sqrt(1 - 0.999 ** step) / (1 - 0.9 ** step)
                weights[name] = (weights[name] - scale * mean[name] / (np.sqrt(power[name]) + 1e-8)).astype(np.float32)
        if epoch % 10 == 9:
            right = (forward(weights, images)[0].argmax(axis=1) == labels).mean()
            print(f"epoch {epoch + 1:2}: {100 * right:.2f} % of the training images")
    return weights


def main():
    parser = argparse.ArgumentParser(description="Trains the digits example and writes its data.")
    parser.add_argument("--data", type=pathlib.Path, default=pathlib.Path(__file__).resolve().parent / "data")
    folder = parser.parse_args().data

    images, labels, test_images, test_labels = load_digits()
    weights = train(images.astype(np.float32) / 16, labels)

    exact = {name: value.astype(np.float64) for name, value in weights.items()}
    logits, _ = forward(exact, test_images.astype(np.float64) / 16)
    right = (logits.argmax(axis=1) == test_labels).sum()
    print(f"held out: {right} of {len(test_labels)} right, {100 * right / len(test_labels):.2f} %")

    (folder / "weights").mkdir(parents=True, exist_ok=True)
    for name, value in weights.items():
        np.save(folder / "weights" / f"{name}.npy", np.ascontiguousarray(value))
    np.save(folder / "images.npy", test_images[:, 0])
    np.save(folder / "labels.npy", test_labels)
    np.save(folder / "logits.npy", logits.astype(np.float32))


if __name__ == "__main__":
    main()
