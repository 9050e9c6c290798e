// Reads .npy files, and refuses one that ends early.
#ifndef OPKIT_EXAMPLES_DIGITS_NPY_H
#define OPKIT_EXAMPLES_DIGITS_NPY_H

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <xtensor/xarray.hpp>
#include <xtensor/xnpy.hpp>

template <class T>
xt::xarray<T> LoadNpy(const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        throw std::runtime_error(file.string() + ": cannot be opened");
    }
    try {
        xt::xarray<T> array = xt::load_npy<T>(stream);
        if (stream) {
            return array;
        }
    } catch (const std::exception& error) {
        throw std::runtime_error(file.string() + ": " + error.what());
    }
    throw std::runtime_error(file.string() + ": ends before its last element");
}

#endif  // OPKIT_EXAMPLES_DIGITS_NPY_H
