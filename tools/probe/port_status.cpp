#include "port_status.h"

std::string port_status_words(uint8_t status)
{
    std::string words = status & 0x20 ? "paper empty, " : "";
    words += status & 0x10 ? "selected" : "not selected";
    words += status & 0x08 ? ", no error" : ", error";
    return words;
}
