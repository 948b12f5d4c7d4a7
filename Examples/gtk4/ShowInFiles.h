#pragma once

#include <filesystem>

/// Opens the desktop's file manager with the file selected, or with its folder if it cannot select files.
void showInFiles(const std::filesystem::path& file);
