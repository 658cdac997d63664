#include "report.h"
namespace talvik::bench {
std::string drawPicture(const Json&) {
    return "<svg/>";
}
}  // namespace talvik::bench
