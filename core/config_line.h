// The lines of the configuration file, as the daemon, dovmad-user and dovmad-check read them.
//
//     KEYWORD VALUE # comment
#pragma once

#include <cstdio>
#include <string>

// What one reading of the file found. A line that counts has both a keyword and a value.
struct config_line {
    int number = 0;       // of the line in the file, from 1
    std::string text;     // the line as it was scanned
    std::string keyword;  // empty in a line without a value
    std::string value;
    char cut = '\0';          // the last character, which is dropped; a line feed in a good line
    bool unfinished = false;  // the line is too long: what follows is read as another one
};

// Reads on to the next line that is no comment and not empty; `line` must be the one that the last
// call filled, or a fresh one. False: there is none.
//
// Kept: the last character of a line goes, also when it is no line feed; the value keeps the blanks
// that stand before a comment or the end; lines over 2047 bytes are read in pieces, each of which
// loses its last character and counts as a line.
[[nodiscard]] bool next_config_line(std::FILE* file, config_line* line);
