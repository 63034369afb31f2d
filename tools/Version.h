#pragma once

// The version the tools report with --version; the project's version in
// CMakeLists.txt (the tools' test holds them together).
constexpr const char* kTalvoemVersion = "1.0.0";
