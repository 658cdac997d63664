// The picture: on the left the share of the device library's speed that each sequence keeps, on the right hashing by
// chunk size beside the system's CSP and the cost of operations by the number of keys on the token.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "report.h"

namespace talvik::bench {
namespace {

constexpr const char* ink = "#222222";
constexpr const char* faint = "#d5d8dc";
constexpr const char* asIs = "#1f5fa8";
constexpr const char* withoutQueries = "#a9cbee";
constexpr const char* other = "#d97b20";
constexpr const char* third = "#4b8b3b";

class Svg {
  public:
    Svg(int width, int height) {
        add("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" viewBox=\"0 0 %d %d\" "
            "font-family=\"DejaVu Sans, Arial, sans-serif\">\n",
            width, height, width, height);
        rectangle(0, 0, width, height, "#ffffff");
    }

    void rectangle(double x, double y, double width, double height, const char* fill) {
        add("<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"%s\"/>\n", x, y, width, height, fill);
    }
    void line(double x1, double y1, double x2, double y2, const char* stroke, double width) {
        add("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"%s\" stroke-width=\"%.1f\"/>\n", x1, y1, x2,
            y2, stroke, width);
    }
    void dot(double x, double y, const char* fill) {
        add("<circle cx=\"%.1f\" cy=\"%.1f\" r=\"3.5\" fill=\"%s\"/>\n", x, y, fill);
    }
    // `anchor`: start, middle or end.
    void text(double x, double y, const char* anchor, int size, const char* fill, const std::string& words) {
        add("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"%s\" font-size=\"%d\" fill=\"%s\">%s</text>\n", x, y, anchor,
            size, fill, words.c_str());
    }
    std::string finish() { return svg_ + "</svg>\n"; }

  private:
    template <class... Values>
    void add(const char* pattern, Values... values) {
        char piece[512];
        std::snprintf(piece, sizeof piece, pattern, values...);
        svg_ += piece;
    }

    std::string svg_;
};

double median(const Json& row, const char* figure) {
    return row.at(figure).at("median").get<double>();
}

std::string rounded(double value, int digits) {
    char text[32];
    std::snprintf(text, sizeof text, "%.*f", digits, value);
    return text;
}

void legend(Svg& svg, double x, double y, const char* colour, const char* words) {
    svg.rectangle(x, y - 9, 12, 10, colour);
    svg.text(x + 18, y, "start", 12, ink, words);
}

// --- the shares ------------------------------------------------------------------------------------------------------

void drawShares(Svg& svg, const Json& rows, double left, double top) {
    constexpr double labelWidth = 280, width = 330, step = 27;
    svg.text(left, top, "start", 16, ink, "Share of the device library's own speed that the provider keeps");
    legend(svg, left, top + 24, asIs, "as it is");
    legend(svg, left + 100, top + 24, withoutQueries, "if the log level cost nothing to ask for");
    const double origin = left + labelWidth;
    double y = top + 48;
    const double first = y;
    for (const Json& row : rows) {
        if (row.at("section") != "sequences") {
            continue;
        }
        const double kept = median(row, "kept"), without = median(row, "keptWithoutQueries");
        const auto bar = [&](double share) { return std::min(share, 1.15) * width; };
        svg.text(origin - 8, y + 13, "end", 12, ink, row.at("name").get<std::string>());
        svg.rectangle(origin, y + 1, bar(without), 17, withoutQueries);
        svg.rectangle(origin, y + 4, bar(kept), 11, asIs);
        svg.text(origin + 1.15 * width + 8, y + 14, "start", 12, ink, rounded(kept, 2) + " / " + rounded(without, 2));
        y += step;
    }
    for (const double share : {0.0, 0.25, 0.5, 0.75, 1.0}) {
        svg.line(origin + share * width, first, origin + share * width, y, share == 1.0 ? ink : faint,
                 share == 1.0 ? 1.2 : 0.6);
        svg.text(origin + share * width, y + 15, "middle", 11, ink, rounded(share, 2));
    }
}

// --- curves ----------------------------------------------------------------------------------------------------------

struct Curve {
    const char* colour;
    std::string label;
    std::vector<std::pair<double, double>> points;
};

// Both axes logarithmic; marks at the given values.
struct Chart {
    const char* title;
    const char* unit;
    std::vector<std::pair<double, std::string>> xMarks;
    std::vector<std::pair<double, std::string>> yMarks;
};

void drawChart(Svg& svg, const Chart& chart, const std::vector<Curve>& curves, double left, double top) {
    constexpr double width = 330, height = 230;
    const auto place = [](double value, const auto& marks, double length) {
        const double low = std::log(marks.front().first), high = std::log(marks.back().first);
        return (std::log(value) - low) / (high - low) * length;
    };
    const auto x = [&](double value) { return left + 70 + place(value, chart.xMarks, width); };
    const auto y = [&](double value) { return top + 40 + height - place(value, chart.yMarks, height); };
    svg.text(left, top, "start", 16, ink, chart.title);
    svg.text(left, top + 20, "start", 12, ink, chart.unit);
    for (const auto& [value, words] : chart.xMarks) {
        svg.line(x(value), top + 40, x(value), top + 40 + height, faint, 0.6);
        svg.text(x(value), top + 40 + height + 16, "middle", 11, ink, words);
    }
    for (const auto& [value, words] : chart.yMarks) {
        svg.line(left + 70, y(value), left + 70 + width, y(value), faint, 0.6);
        svg.text(left + 62, y(value) + 4, "end", 11, ink, words);
    }
    // Labels stand at the ends of their curves, pushed apart where those meet.
    std::vector<const Curve*> ordered;
    for (const Curve& curve : curves) {
        ordered.push_back(&curve);
    }
    std::sort(ordered.begin(), ordered.end(), [](const Curve* left_, const Curve* right_) {
        return left_->points.back().second > right_->points.back().second;
    });
    double lowest = 0;
    for (const Curve* const curve : ordered) {
        for (std::size_t i = 0; i < curve->points.size(); ++i) {
            const auto& [px, py] = curve->points[i];
            if (i > 0) {
                svg.line(x(curve->points[i - 1].first), y(curve->points[i - 1].second), x(px), y(py), curve->colour, 2);
            }
            svg.dot(x(px), y(py), curve->colour);
        }
        const double wanted = y(curve->points.back().second) + 4;
        lowest = std::max(wanted, lowest + 15);
        svg.text(left + 70 + width + 10, lowest, "start", 12, curve->colour, curve->label);
    }
}

void drawChunks(Svg& svg, const Json& rows, double left, double top) {
    struct Chunk {
        const char* id;
        double piece;
        double bytesHashed;
    };
    constexpr Chunk chunks[] = {{"system.hash.512", 512, 512. * 512},
                                {"system.hash.4k", 4096, 128. * 4096},
                                {"system.hash.64k", 65536, 16. * 65536},
                                {"system.hash.1m", 1048576, 2. * 1048576}};
    std::vector<Curve> curves = {
        {asIs, "provider", {}}, {"#6fa3d8", "provider, no level queries", {}}, {other, "system's software CSP", {}}};
    constexpr const char* figures[] = {"provider", "providerWithoutQueries", "system"};
    for (const Chunk& chunk : chunks) {
        for (std::size_t i = 0; i < curves.size(); ++i) {
            curves[i].points.emplace_back(chunk.piece, chunk.bytesHashed / median(rowOf(rows, chunk.id), figures[i]));
        }
    }
    drawChart(svg,
              {"SHA-256 through CryptoAPI, by size of chunk",
               "megabytes a second",
               {{512, "512 B"}, {4096, "4 KiB"}, {65536, "64 KiB"}, {1048576, "1 MiB"}},
               {{1, "1"}, {10, "10"}, {100, "100"}, {1000, "1,000"}, {10000, "10,000"}}},
              curves, left, top);
}

void drawKeys(Svg& svg, const Json& rows, double left, double top) {
    std::vector<Curve> curves = {{asIs, "acquire a context", {}},
                                 {"#6fa3d8", "the same, no level queries", {}},
                                 {other, "open a CNG key", {}},
                                 {third, "get the user key", {}},
                                 {"#777777", "copy of the key list", {}}};
    for (const int count : {1, 100, 1000, 10000}) {
        const auto at = [&](const char* operation, const char* figure) {
            return std::pair(
                static_cast<double>(count),
                median(rowOf(rows, std::string("keys.") + operation + "." + std::to_string(count)), figure));
        };
        curves[0].points.push_back(at("acquire", "provider"));
        curves[1].points.push_back(at("acquire", "providerWithoutQueries"));
        curves[2].points.push_back(at("open", "provider"));
        curves[3].points.push_back(at("userkey", "provider"));
        curves[4].points.push_back(at("userkey", "listCopy"));
    }
    drawChart(svg,
              {"By number of keys on the token",
               "time of one call (over a device library that only lists keys)",
               {{1, "1 key"}, {10, "10"}, {100, "100"}, {1000, "1,000"}, {10000, "10,000"}},
               {{0.01, "10 ns"}, {1, "1 \xC2\xB5s"}, {100, "100 \xC2\xB5s"}, {10000, "10 ms"}, {1000000, "1 s"}}},
              curves, left, top);
}

}  // namespace

std::string drawPicture(const Json& rows) {
    Svg svg(1500, 740);
    svg.text(30, 38, "start", 20, ink, "What TalvikCSP costs");
    svg.text(
        30, 58, "start", 12, "#555555",
        "Medians; virtual token under Wine. At every log line, written or not, the provider asks the registry for the "
        "level: one query costs " +
            rounded(median(rowOf(rows, "log.query"), "time"), 0) + " \xC2\xB5s here.");
    drawShares(svg, rows, 30, 100);
    drawChunks(svg, rows, 860, 100);
    drawKeys(svg, rows, 860, 420);
    return svg.finish();
}

}  // namespace talvik::bench
