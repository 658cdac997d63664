// Measures what the provider costs, and reports it. bench.sh at the top of the project runs the parts in their order.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <fstream>

#include "level_query.h"
#include "report.h"
#include "sections.h"

namespace talvik::bench {
namespace {

void write(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary);
    file << text;
    file.close();
    require(file.good() ? TRUE : FALSE, ("writing " + path).c_str());
}

void measureOverToken(const Provider& provider, const std::string& pin, Json& rows) {
    const BenchToken token(provider, pin);
    const struct {
        const char* name;
        void (*measure)(const BenchToken&, Json&);
    } sections[] = {{"beside the device library", measureSequences},
                    {"beside the system's CSP", measureBesideSystem},
                    {"threads", measureThreads},
                    {"log", measureLogging}};
    for (const auto& section : sections) {
        std::fprintf(stderr, "  %s\n", section.name);
        section.measure(token, rows);
    }
}

void measureOverListing(const Provider& provider, Json& rows) {
    std::fputs("  tokens with many keys\n", stderr);
    measureKeyCounts(provider, rows);
    measureMemory(provider, rows);
}

Json readRows(const std::vector<std::string>& paths) {
    Json rows = Json::array();
    for (const std::string& path : paths) {
        std::ifstream file(path, std::ios::binary);
        for (Json& row : Json::parse(file)) {
            rows.push_back(std::move(row));
        }
    }
    return rows;
}

int run(int argc, char** argv) {
    CLI::App app("What the provider costs.", "talvik_bench");
    app.require_subcommand(1);
    std::string out;
    std::string pin;
    std::vector<std::string> parts;

    CLI::App& token = *app.add_subcommand("token", "Measures over the first virtual token.");
    token.add_option("--pin", pin, "The token's PIN")->required();
    CLI::App& listing = *app.add_subcommand("listing", "Measures over the library that lists keys.");
    CLI::App& load = *app.add_subcommand("load", "Measures the loading of the module.");
    for (CLI::App* const measuring : {&token, &listing, &load}) {
        measuring->add_option("--out", out, "Where the rows go, as JSON")->required();
    }
    CLI::App& report =
        *app.add_subcommand("report", "Prints the table and the budgets; writes JSON and what the picture shows.");
    report.add_option("parts", parts, "What the other subcommands wrote")->required();
    report.add_option("--out", out, "Folder for bench.json and bench.dat")->required();
    CLI11_PARSE(app, argc, argv);

    if (report.parsed()) {
        const Report result(readRows(parts));
        result.print();
        write(out + "/bench.json", result.json().dump(2) + "\n");
        write(out + "/bench.dat", result.plotData());
        return 0;
    }
    const Provider provider;
    watchLevelQueries(provider.module);
    Json rows = Json::array();
    if (token.parsed()) {
        measureOverToken(provider, pin, rows);
    } else if (listing.parsed()) {
        measureOverListing(provider, rows);
    } else {
        measureLoading(provider, rows);
    }
    write(out, rows.dump(2) + "\n");
    return 0;
}

}  // namespace
}  // namespace talvik::bench

int main(int argc, char** argv) {
    try {
        return talvik::bench::run(argc, argv);
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "talvik_bench: %s\n", problem.what());
        return 1;
    }
}
