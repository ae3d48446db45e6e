#include "products/products.hpp"

#include <cctype>
#include <charconv>
#include <stdexcept>
#include <string>

namespace torvik::products {

namespace {

struct Reader {
    std::string_view text;
    std::size_t pos = 0;

    void blanks() {
        while (pos < text.size() && std::isspace(static_cast<unsigned char>(text[pos]))) ++pos;
    }
    bool at(char c) {
        blanks();
        return pos < text.size() && text[pos] == c;
    }
    void expect(char c) {
        if (!at(c)) fail(std::string("expected '") + c + "'");
        ++pos;
    }
    int number() {
        blanks();
        int v = 0;
        auto [end, ec] = std::from_chars(text.data() + pos, text.data() + text.size(), v);
        if (ec != std::errc()) fail("expected a number");
        pos = static_cast<std::size_t>(end - text.data());
        return v;
    }
    bool done() {
        blanks();
        return pos == text.size();
    }
    [[noreturn]] void fail(const std::string& why) const {
        throw std::invalid_argument("port table \"" + std::string(text) + "\": " + why + " at " + std::to_string(pos));
    }
};

}  // namespace

PortTable parsePortTable(std::string_view text) {
    PortTable table;
    Reader r{text};
    while (!r.done()) {
        int port = r.number();
        r.expect(':');
        std::vector<Cell> cells;
        while (!r.done() && !r.at(';')) {
            if (r.at('(')) {
                r.expect('(');
                Cell c;
                c.hw_port = r.number();
                r.expect(',');
                c.pin = r.number();
                r.expect(')');
                cells.push_back(c);
            } else {
                cells.push_back(Cell{-1, r.number()});
            }
        }
        table.emplace_back(port, std::move(cells));
        if (r.at(';')) r.expect(';');
    }
    return table;
}

}  // namespace torvik::products
