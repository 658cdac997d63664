#include <cmath>
#include <cstdarg>
#include <cstdio>

#include "report.h"

namespace talvik::bench {
namespace {

constexpr double largestModule = 1 << 20;
constexpr double largestHandle = 4 << 10;

double median(const Json& row, const char* figure) {
    return row.at(figure).at("median").get<double>();
}

#if defined __GNUC__ && !defined __clang__
__attribute__((format(gnu_printf, 1, 2)))
#endif
std::string
format(const char* pattern, ...) {
    char text[256];
    va_list arguments;
    va_start(arguments, pattern);
    std::vsnprintf(text, sizeof text, pattern, arguments);
    va_end(arguments);
    return text;
}

// A share of the reference's speed: `ratio` must reach `least`.
Budget atLeast(const Json& rows, const char* id, const char* text, double least, const char* ratio) {
    const Json& row = rowOf(rows, id);
    const std::string name = ratio;
    const double reached = median(row, ratio);
    return {text,
            format("%.3f (%.3f to %.3f), at least %.2f; fastest %.3f; without its %ld level queries %.3f, fastest %.3f",
                   reached, row.at(name).at("min").get<double>(), row.at(name).at("max").get<double>(), least,
                   row.at(name + "Undisturbed").get<double>(), row.at("levelQueries").get<long>(),
                   median(row, (name + "WithoutQueries").c_str()),
                   row.at(name + "UndisturbedWithoutQueries").get<double>()),
            reached >= least};
}

// Two threads do nearly twice the work of one. What a loop that only computes gains on the machine stands beside it:
// nothing can gain more.
Budget threadsBudget(const Json& rows, const char* id, const char* text) {
    constexpr double least = 1.9;
    const Json& row = rowOf(rows, id);
    const auto gain = [&](const char* way) { return row.at(way).at("2").at("median").get<double>(); };
    const double reached = gain("provider");
    return {text,
            format("%.2f, at least %.2f (the machine gives %.2f); device library %.2f, without level queries %.2f",
                   reached, least, gain("machine"), gain("direct"), gain("providerWithoutQueries")),
            reached >= least};
}

std::string keysId(const char* operation, unsigned int count) {
    return std::string("keys.") + operation + "." + std::to_string(count);
}

// The provider's own work per key, in copies of a key's record. The lines that name the keys ask for nothing.
Budget perKey(const Json& rows, const char* operation, const char* text) {
    constexpr double mostCopies = 3;
    const Json& many = rowOf(rows, keysId(operation, 10000));
    const Json& few = rowOf(rows, keysId(operation, 100));
    const double keys = many.at("keys").get<double>() - few.at("keys").get<double>();
    const double queries = (many.at("levelQueries").get<double>() - few.at("levelQueries").get<double>()) / keys;
    const double copies = median(many, "listCopies");
    return {text,
            format("%.2f copies (%.2f to %.2f), at most %.0f, and %.3f queries, at most 0.01", copies,
                   many.at("listCopies").at("min").get<double>(), many.at("listCopies").at("max").get<double>(),
                   mostCopies, queries),
            copies <= mostCopies && queries <= 0.01};
}

// The exponent with which time grows from 1,000 keys to 10,000. A copy of the list itself grows faster than linearly
// where it outgrows a cache, so that is what growth is compared with.
Budget growth(const Json& rows) {
    constexpr double allowance = 0.15;
    constexpr const char* operations[] = {"acquire", "userkey", "sign", "containers", "open", "keys"};
    const auto exponent = [&](const char* operation, const char* figure) {
        return std::log10(median(rowOf(rows, keysId(operation, 10000)), figure) /
                          median(rowOf(rows, keysId(operation, 1000)), figure));
    };
    double worst = -1;
    std::string figure;
    for (const char* const operation : operations) {
        const double own = exponent(operation, "providerWithoutQueries");
        const double copy = std::max(1.0, exponent(operation, "listCopy"));
        if (own - copy > worst) {
            worst = own - copy;
            figure = format("fastest is \"%s\", power %.2f where copying the list has %.2f",
                            rowOf(rows, keysId(operation, 1000)).at("name").get<std::string>().c_str(), own,
                            exponent(operation, "listCopy"));
        }
    }
    return {"nothing grows faster than linearly with the keys", figure, worst <= allowance};
}

// How often the level is asked for: by a thread that signs without a pause, and by a call that comes after one.
Budget questions(const Json& rows, const char* id, const char* text, double most) {
    const double asked = rowOf(rows, id).at("questions").get<double>();
    return {text, format("%.2f, at most %.0f", asked, most), asked <= most};
}

Budget atMostMicroseconds(const Json& rows, const std::string& id, const char* text, double most) {
    const Json& times = rowOf(rows, id).at("provider");
    return {text,
            format("%.0f us (%.0f to %.0f), at most %.0f", times.at("median").get<double>(),
                   times.at("min").get<double>(), times.at("max").get<double>(), most),
            times.at("median").get<double>() <= most};
}

Budget atMostBytes(const Json& rows, const char* id, double most) {
    const Json& row = rowOf(rows, id);
    const double bytes = row.at("bytes").get<double>();
    return {row.at("name").get<std::string>(), format("%.0f bytes, at most %.0f", bytes, most), bytes <= most};
}

}  // namespace

std::vector<Budget> judge(const Json& rows) {
    std::vector<Budget> budgets = {
        atLeast(rows, "csp.sign", "1  sign sequence, CSP", 0.98, "kept"),
        atLeast(rows, "ksp.sign", "1  sign sequence, CNG", 0.98, "kept"),
        atLeast(rows, "csp.hash.1m", "2  hash in chunks of 1 MiB", 0.99, "kept"),
        atLeast(rows, "csp.hash.4k", "2  hash in chunks of 4 KiB", 0.93, "kept"),
        atLeast(rows, "csp.aes.encrypt", "3  AES encryption of 1 MiB, CSP", 0.97, "kept"),
        atLeast(rows, "csp.aes.decrypt", "3  AES decryption of 1 MiB, CSP", 0.95, "kept"),
        atLeast(rows, "ksp.aes.encrypt", "3  AES encryption of 1 MiB, CNG", 0.97, "kept"),
        atLeast(rows, "ksp.aes.decrypt", "3  AES decryption of 1 MiB, CNG", 0.95, "kept"),
        threadsBudget(rows, "threads.hash", "4  two threads hashing"),
        threadsBudget(rows, "threads.sign", "4  two threads signing"),
        perKey(rows, "acquire", "5  acquiring a context, per key"),
        perKey(rows, "open", "5  opening a key, per key"),
        growth(rows),
        atMostMicroseconds(rows, keysId("acquire", 1000), "5  acquiring a context with 1,000 keys", 2000),
        questions(rows, "log.loop", "6  questions for the level per tick, signing in a loop", 1),
        questions(rows, "log.isolated", "6  questions for the level in an isolated call", 1),
        atMostBytes(rows, "size.module", largestModule),
        atMostBytes(rows, "memory.context", largestHandle),
        atMostBytes(rows, "memory.hash", largestHandle),
        atMostBytes(rows, "memory.key", largestHandle),
        atMostBytes(rows, "memory.ksp.key", largestHandle),
    };
    // Beside the system's own provider, everything that a program does.
    for (const Json& row : rows) {
        if (row.at("section") == "system") {
            const std::string id = row.at("id").get<std::string>();
            const double least = id == "system.hash.512" ? 4.0 : id == "system.hash.4k" ? 5.0 : 1.0;
            const std::string text = "7  beside the system's provider: " + row.at("name").get<std::string>();
            budgets.push_back(atLeast(rows, id.c_str(), text.c_str(), least, "speed"));
        }
    }
    return budgets;
}

}  // namespace talvik::bench
