#pragma once

#include <fstream>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

#include "Tests/Support/Places.h"

namespace utilia::test {

// The vectors of Tests/Data/NAME.json: a list of {id, input, expected, …}. Fails loudly when there
// are none.
inline nlohmann::json testVectors(const std::string& name) {
    std::ifstream file(std::string(places::kTestData) + "/" + name + ".json");
    nlohmann::json vectors = nlohmann::json::parse(file).at("vectors");
    if (vectors.empty()) throw std::runtime_error("no test vectors in " + name);
    return vectors;
}

}  // namespace utilia::test
