// Reads the corpus of real printers: one JSON object a line, as the devices
// returned their descriptors in public `lsusb -v` output.
#include "vprinter.h"

#include <json-glib/json-glib.h>

#include <fstream>
#include <memory>
#include <stdexcept>

namespace vprinter {

namespace {

struct ParserUnref {
    void operator()(JsonParser* p) const { g_object_unref(p); }
};

std::string member_text(JsonObject* obj, const char* name, bool required)
{
    JsonNode* node = json_object_get_member(obj, name);
    if (!node) {
        if (required)
            throw std::runtime_error(std::string("no \"") + name + "\"");
        return "";
    }
    if (!JSON_NODE_HOLDS_VALUE(node) || json_node_get_value_type(node) != G_TYPE_STRING)
        throw std::runtime_error(std::string("\"") + name + "\" is not a string");
    return json_node_get_string(node);
}

uint16_t hex16(const std::string& text, const char* what)
{
    Bytes b;
    if (text.size() != 4 || !parse_hex(text, b))
        throw std::runtime_error(std::string("\"") + what + "\" is not four hex digits");
    return static_cast<uint16_t>(b[0] << 8 | b[1]);
}

} // namespace

CorpusDevice parse_corpus_line(const std::string& line)
{
    std::unique_ptr<JsonParser, ParserUnref> parser(json_parser_new());
    GError* error = nullptr;
    if (!json_parser_load_from_data(parser.get(), line.c_str(), static_cast<gssize>(line.size()), &error)) {
        const std::string msg = error->message;
        g_error_free(error);
        throw std::runtime_error("not JSON: " + msg);
    }
    JsonNode* root = json_parser_get_root(parser.get());
    if (!root || !JSON_NODE_HOLDS_OBJECT(root))
        throw std::runtime_error("not a JSON object");
    JsonObject* obj = json_node_get_object(root);

    CorpusDevice c;
    c.name = member_text(obj, "name", true);
    c.category = member_text(obj, "category", false);
    c.source = member_text(obj, "source", false);
    DeviceSpec& d = c.device;
    d.name = c.name;
    if (!parse_hex(member_text(obj, "descriptors", true), d.descriptors) || d.descriptors.empty())
        throw std::runtime_error("\"descriptors\" is not hex bytes");
    const Layout layout = walk(d.descriptors);
    d.vid = json_object_has_member(obj, "vid") ? hex16(member_text(obj, "vid", true), "vid") : layout.vid;
    d.pid = json_object_has_member(obj, "pid") ? hex16(member_text(obj, "pid", true), "pid") : layout.pid;
    if (JsonNode* speed = json_object_get_member(obj, "speed_mbps")) {
        if (!JSON_NODE_HOLDS_VALUE(speed) || json_node_get_value_type(speed) != G_TYPE_INT64)
            throw std::runtime_error("\"speed_mbps\" is not a number");
        d.speed_mbps = static_cast<unsigned>(json_node_get_int(speed));
    }

    // "(error)": the device refuses the string. "" or an index that a
    // descriptor names but the dump does not give: the text is unknown, and
    // the device answers with the entry's name, which reads as what it is.
    if (JsonNode* strings = json_object_get_member(obj, "strings")) {
        if (!JSON_NODE_HOLDS_OBJECT(strings))
            throw std::runtime_error("\"strings\" is not an object");
        JsonObject* s = json_node_get_object(strings);
        GList* keys = json_object_get_members(s);
        for (GList* k = keys; k; k = k->next) {
            const std::string key = static_cast<const char*>(k->data);
            char* end = nullptr;
            const long index = strtol(key.c_str(), &end, 10);
            if (key.empty() || *end || index < 0 || index > 255) {
                g_list_free(keys);
                throw std::runtime_error("string index \"" + key + "\" is not 0 to 255");
            }
            const std::string text = member_text(s, key.c_str(), true);
            if (text == "(error)")
                d.strings[static_cast<uint8_t>(index)] = std::nullopt;
            else
                d.strings[static_cast<uint8_t>(index)] = text.empty() ? c.name : text;
        }
        g_list_free(keys);
    }
    std::vector<uint8_t> named = {layout.manufacturer, layout.product, layout.serial};
    for (const AltSetting& a : layout.settings)
        named.push_back(a.string);
    for (uint8_t index : named)
        if (index != 0 && !d.strings.count(index))
            d.strings[index] = c.name;
    return c;
}

std::vector<CorpusDevice> load_corpus(const std::string& path)
{
    std::ifstream in(path);
    if (!in)
        throw std::runtime_error("cannot read " + path);
    std::vector<CorpusDevice> out;
    std::string line;
    for (unsigned n = 1; std::getline(in, line); ++n) {
        if (line.find_first_not_of(" \t\r") == std::string::npos)
            continue;
        try {
            out.push_back(parse_corpus_line(line));
        } catch (const std::exception& e) {
            throw std::runtime_error(path + ":" + std::to_string(n) + ": " + e.what());
        }
    }
    return out;
}

} // namespace vprinter
