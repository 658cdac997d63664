#include "doctor_virtual.h"

#include "system_text.h"
#include "token_home.h"

namespace talvik_tool {
namespace {

using virtual_token::SignOn;
using virtual_token::TokenState;
using virtual_token::utf8;

bool takesPins(const TokenState& state) {
    return state.userPin.attemptsLeft > 0 && !state.clockSkewed;
}

void inspectState(const TokenState& state, Findings& findings) {
    if (state.userPin.attemptsLeft == 0) {
        const bool locked = state.adminPin.attemptsLeft == 0;
        findings.problem(
            "The PIN of token " + state.id + " is locked" + (locked ? ", and so is the administrator's." : "."),
            locked ? "Nothing opens it any more. Make another: talvik token delete " + state.id +
                         ", then talvik token create"
                   : "Set a new one with the administrator's PIN: talvik token unblock " + state.id);
    } else if (state.userPin.attemptsLeft < state.userPin.attemptsAllowed) {
        findings.note("Token " + state.id + " has " + std::to_string(state.userPin.attemptsLeft) + " of " +
                          std::to_string(state.userPin.attemptsAllowed) + " attempts at its PIN left.",
                      "The right PIN restores them.");
    }
    if (state.clockSkewed) {
        findings.problem("The clock of token " + state.id + " disagrees with the computer's: no login succeeds.",
                         "talvik token clock ok " + state.id);
    }
    if (state.signOn == SignOn::Expired) {
        findings.problem("The single sign-on of token " + state.id + " has expired: the PIN will be asked for.",
                         "Log in, or: talvik token sso on " + state.id);
    }
}

}  // namespace

std::vector<std::string> inspectVirtualTokens(const std::vector<std::string>& attached, Findings& findings) {
    std::vector<std::string> takingNoPin;
    const auto tokens = virtual_token::listTokens();
    std::string detached;
    for (const auto& token : tokens) {
        if (!token.snapshot) {
            findings.problem("The file of token " + token.id + " cannot be used: " + token.problem,
                             "Put back a copy of " + token.id + ".json in " + utf8(virtual_token::tokenHome()) +
                                 ", or give it up: talvik token delete " + token.id);
        } else if (token.snapshot->state.attached) {
            inspectState(token.snapshot->state, findings);
            if (!takesPins(token.snapshot->state)) {
                takingNoPin.push_back(token.id);
            }
        } else {
            detached = detached.empty() ? token.id : detached;
        }
    }
    if (tokens.empty()) {
        findings.problem(
            "This user has made no virtual token: there is none in " + utf8(virtual_token::tokenHome()) + ".",
            "talvik token create --id T1");
    } else if (attached.empty() && !detached.empty()) {
        findings.problem("No token is attached; token " + detached + " is detached.",
                         "talvik token attach " + detached);
    }
    return takingNoPin;
}

}  // namespace talvik_tool
