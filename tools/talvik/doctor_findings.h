// What "talvik doctor" has to say: everything that is not as it should be, and what to do about it.
#pragma once

#include <string>
#include <vector>

namespace talvik_tool {

struct Finding {
    bool isProblem;  // a note tells something worth knowing that does not make the machine unfit
    std::string what;
    std::string remedy;
};

class Findings {
  public:
    void problem(std::string what, std::string remedy) { list_.push_back({true, std::move(what), std::move(remedy)}); }
    void note(std::string what, std::string remedy) { list_.push_back({false, std::move(what), std::move(remedy)}); }
    const std::vector<Finding>& list() const { return list_; }
    std::size_t problems() const {
        std::size_t count = 0;
        for (const Finding& finding : list_) {
            count += finding.isProblem ? 1 : 0;
        }
        return count;
    }

  private:
    std::vector<Finding> list_;
};

}  // namespace talvik_tool
