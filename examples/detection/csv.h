// Reads a table of numbers from a CSV file.
#ifndef OPKIT_EXAMPLES_DETECTION_CSV_H
#define OPKIT_EXAMPLES_DETECTION_CSV_H

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

using Rows = std::vector<std::vector<float>>;

// The lines behind the header, of which there must be one at least; every line has `columns` numbers.
inline Rows ReadCsv(const std::filesystem::path& file, size_t columns)
{
    std::ifstream stream(file);
    Rows rows;
    std::string line;
    std::getline(stream, line);
    while (std::getline(stream, line)) {
        std::vector<float> row;
        std::istringstream cells(line);
        for (std::string cell; std::getline(cells, cell, ',');) {
            size_t used = 0;
            row.push_back(std::stof(cell + " ", &used));
            if (used != cell.size()) {
                throw std::runtime_error(file.string() + ": \"" + cell + "\" is no number");
            }
        }
        if (row.size() != columns) {
            throw std::runtime_error(file.string() + ": \"" + line + "\" has not " + std::to_string(columns) +
                                     " columns");
        }
        rows.push_back(row);
    }
    if (rows.empty()) {
        throw std::runtime_error(file.string() + " cannot be read or holds nothing");
    }
    return rows;
}

#endif  // OPKIT_EXAMPLES_DETECTION_CSV_H
