// The printer class's port status byte in words, as the probe prints it.
#pragma once

#include <cstdint>
#include <string>

// "paper empty, selected, no error" and the like; bits other than paper
// empty (0x20), selected (0x10) and no error (0x08) say nothing.
std::string port_status_words(uint8_t status);
