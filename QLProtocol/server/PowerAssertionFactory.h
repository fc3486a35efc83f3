#pragma once

#include <memory>
#include <string>

namespace ql {

// Keeps the machine from idle sleep while it lives; dropping it releases the assertion.
class PowerAssertion {
public:
    virtual ~PowerAssertion() = default;
};

// Takes sleep-preventing assertions, one per active run. Failing to take one never stops a run:
// the live implementation logs the failure and returns an assertion that holds nothing.
class PowerAssertionFactory {
public:
    virtual ~PowerAssertionFactory() = default;
    virtual std::unique_ptr<PowerAssertion> take(const std::string& reason) = 0;
};

// Holds nothing: for tests and for servers that let the machine's own settings decide.
class NoOpPowerAssertionFactory final : public PowerAssertionFactory {
public:
    std::unique_ptr<PowerAssertion> take(const std::string&) override { return std::make_unique<PowerAssertion>(); }
};

}  // namespace ql
