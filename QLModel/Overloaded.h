#pragma once

namespace ql {

// Builds one visitor from several lambdas, for std::visit over the model's tagged variants.
template <class... F>
struct Overloaded : F... {
    using F::operator()...;
};
template <class... F>
Overloaded(F...) -> Overloaded<F...>;

}  // namespace ql
