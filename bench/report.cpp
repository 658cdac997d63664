#include "report.h"

#include <algorithm>
#include <cstdio>
#include <set>

#include "provider.h"

namespace talvik::bench {
namespace {

using Rows = std::vector<const Json*>;

Rows sectionOf(const Json& rows, const char* section) {
    Rows found;
    for (const Json& row : rows) {
        if (row.at("section") == section) {
            found.push_back(&row);
        }
    }
    return found;
}

double median(const Json& row, const char* figure) {
    return row.at(figure).at("median").get<double>();
}

std::string textOf(const Json& row, const char* field) {
    return row.at(field).get<std::string>();
}

// "0.982 (0.951 to 1.004)"
std::string spread(const Json& summary) {
    char text[64];
    std::snprintf(text, sizeof text, "%.3f (%.3f to %.3f)", summary.at("median").get<double>(),
                  summary.at("min").get<double>(), summary.at("max").get<double>());
    return text;
}

// `reference` is what the provider stands beside, `ratio` how the two compare.
void printComparison(const Rows& rows, const char* title, const char* reference, const char* ratio) {
    const std::string ratioWithout = std::string(ratio) + "WithoutQueries";
    const std::string undisturbed = std::string(ratio) + "Undisturbed";
    std::printf("\n%s\n%-42s %10s %10s %10s   %-26s %-26s %s\n", title, "microseconds, median", "provider", "unqueried",
                reference, ratio, "without level queries", "queries");
    for (const Json* row : rows) {
        std::printf("%-42s %10.1f %10.1f %10.1f   %-26s %-26s %5.3f/%5.3f  %ld\n", textOf(*row, "name").c_str(),
                    median(*row, "provider"), median(*row, "providerWithoutQueries"), median(*row, reference),
                    spread(row->at(ratio)).c_str(), spread(row->at(ratioWithout.c_str())).c_str(),
                    row->at(undisturbed).get<double>(), row->at(undisturbed + "WithoutQueries").get<double>(),
                    row->at("levelQueries").get<long>());
    }
}

void printThreads(const Rows& rows) {
    std::printf("\nThreads: the work of one, times (%u processors)\n%-35s %-28s %-26s %-26s\n",
                rows.front()->at("processors").get<unsigned int>(), "", "", "2 threads", "4 threads");
    constexpr std::pair<const char*, const char*> ways[] = {{"provider", "provider"},
                                                            {"providerWithoutQueries", "without level queries"},
                                                            {"direct", "device library"},
                                                            {"machine", "a loop without memory"}};
    for (const Json* row : rows) {
        std::string name = textOf(*row, "name");
        for (const auto& [way, label] : ways) {
            std::printf("%-35s %-28s %-26s %-26s\n", name.c_str(), label, spread(row->at(way).at("2")).c_str(),
                        spread(row->at(way).at("4")).c_str());
            name.clear();
        }
    }
}

void printKeys(const Rows& rows) {
    std::printf("\nKeys on the token, over a library that only lists them\n%-42s %7s %12s %12s %10s   %-26s %s\n",
                "microseconds, median", "keys", "provider", "unqueried", "list copy", "in copies of the list",
                "queries");
    Rows ordered = rows;
    std::stable_sort(ordered.begin(), ordered.end(), [](const Json* left, const Json* right) {
        return textOf(*left, "operation") < textOf(*right, "operation");
    });
    std::string last;
    for (const Json* row : ordered) {
        const std::string name = textOf(*row, "name");
        std::printf("%-42s %7u %12.1f %12.1f %10.2f   %-26s %ld\n", name == last ? "" : name.c_str(),
                    row->at("keys").get<unsigned int>(), median(*row, "provider"),
                    median(*row, "providerWithoutQueries"), median(*row, "listCopy"),
                    spread(row->at("listCopies")).c_str(), row->at("levelQueries").get<long>());
        last = name;
    }
}

void printQuestions(const Rows& rows) {
    for (const Json* row : rows) {
        std::printf("%-70s %8.2f\n", textOf(*row, "name").c_str(), row->at("questions").get<double>());
    }
}

void printLog(const Rows& rows) {
    std::printf("\nLog\n%-42s %10s\n", "", "us");
    for (const Json* row : rows) {
        std::printf("%-42s %10.1f\n", textOf(*row, "name").c_str(), median(*row, "time"));
    }
}

Summary loadingTimes(const Rows& rows, const char* field) {
    std::vector<double> times;
    for (const Json* row : rows) {
        times.push_back(row->at(field).get<double>());
    }
    return summarize(times);
}

void printFootprint(const Rows& footprint, const Rows& loading) {
    std::printf("\nFootprint\n%-42s %10s\n", "", "bytes");
    std::set<std::string> told;  // every loading process has measured the file
    for (const Json* row : footprint) {
        if (!told.insert(textOf(*row, "id")).second) {
            continue;
        }
        std::printf("%-42s %10.0f\n", textOf(*row, "name").c_str(), row->at("bytes").get<double>());
    }
    const bool staysLoaded = loading.front()->at("staysLoaded").get<bool>();
    std::printf("%-42s %10.0f us (%zu processes)\n", "loading the module", loadingTimes(loading, "load").median,
                loading.size());
    std::printf("%-42s %10.1f us%s\n", "freeing it", loadingTimes(loading, "unload").median,
                staysLoaded ? " (it stays until the process ends)" : "");
}

}  // namespace

const Json& rowOf(const Json& rows, const std::string& id) {
    const auto found =
        std::find_if(rows.begin(), rows.end(), [&](const Json& row) { return row.value("id", "") == id; });
    if (found == rows.end()) {
        throw Failure("no measurement named " + id);
    }
    return *found;
}

Report::Report(Json rows) : rows_(std::move(rows)), budgets_(judge(rows_)) {}

void Report::print() const {
    printComparison(sectionOf(rows_, "sequences"),
                    "Beside the device library: the share of its speed that the provider keeps", "direct", "kept");
    printComparison(sectionOf(rows_, "system"),
                    "Beside the system's software CSP, both through CryptoAPI: how many times its speed", "system",
                    "speed");
    printThreads(sectionOf(rows_, "threads"));
    printKeys(sectionOf(rows_, "keys"));
    printLog(sectionOf(rows_, "log"));
    printQuestions(sectionOf(rows_, "questions"));
    printFootprint(sectionOf(rows_, "footprint"), sectionOf(rows_, "loading"));
    std::printf("\nBudgets\n");
    for (const Budget& budget : budgets_) {
        std::printf("  %-6s  %s: %s\n", budget.isMet ? "met" : "MISSED", budget.text.c_str(), budget.figure.c_str());
    }
}

Json Report::json() const {
    Json budgets = Json::array();
    for (const Budget& budget : budgets_) {
        budgets.push_back({{"budget", budget.text}, {"met", budget.isMet}, {"figure", budget.figure}});
    }
    return {{"unit", "microseconds unless a field says otherwise"}, {"budgets", budgets}, {"rows", rows_}};
}

// Two blocks of "name provider system": what is done in a second, and megabytes that are hashed in one.
std::string Report::plotData() const {
    std::string operations, hashing;
    for (const Json* row : sectionOf(rows_, "system")) {
        const std::string name = textOf(*row, "name");
        const double units = row->at("unitsPerRun").get<double>() * 1e6;
        char line[128];
        std::snprintf(line, sizeof line, "\"%s\" %.3f %.3f\n", name.c_str(), units / median(*row, "provider"),
                      units / median(*row, "system"));
        (name.starts_with("hash") ? hashing : operations) += line;
    }
    return operations + "\n\n" + hashing;
}

}  // namespace talvik::bench
