// What the rows of the measurements say: a table, the budgets, a picture.
#pragma once

#include <string>

#include "measure.h"

namespace talvik::bench {

struct Budget {
    std::string text;
    std::string figure;
    bool isMet;
};

class Report {
  public:
    explicit Report(Json rows);

    void print() const;
    Json json() const;
    std::string plotData() const;  // for bench.gnuplot

  private:
    Json rows_;
    std::vector<Budget> budgets_;
};

// The budgets over `rows`, in their order.
std::vector<Budget> judge(const Json& rows);

// The row with this id; every budget and picture needs its rows, so a missing one is an error.
const Json& rowOf(const Json& rows, const std::string& id);

}  // namespace talvik::bench
