// Helpers the collectors share for reading /proc text.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// Lines of a file reply; a last line without '\n' in a reply that filled the
// reply buffer was cut by it and is left out.
std::vector<std::string_view> lines_of(std::string_view text);
// The views point into the text: a temporary string would leave them dangling.
std::vector<std::string_view> lines_of(std::string&&) = delete;
// Words separated by blanks; the views point into line.
std::vector<std::string_view> words(std::string_view line);
std::vector<std::string_view> words(std::string&&) = delete;
std::string_view first_line(std::string_view text);
// A whole number or decimal, all of s; false for anything else.
bool to_double(std::string_view s, double& out);
