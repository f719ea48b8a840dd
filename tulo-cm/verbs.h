#pragma once

#include <array>

namespace tulo {

/// A verb of an operation.
struct Verb
{
    enum class Operand { None, Number, Value, Element };

    const char* name;
    Operand operand;
    const char* description;
};

inline constexpr std::array<Verb, 8> verbs {
    { { "set", Verb::Operand::Value, "the operand" },
      { "add", Verb::Operand::Number, "the sum" },
      { "multiply", Verb::Operand::Number, "the product" },
      { "toggle", Verb::Operand::None, "the other truth value" },
      { "append", Verb::Operand::Element, "with the operand at the end" },
      { "remove", Verb::Operand::Element, "without the operand, wherever it stands" },
      { "next", Verb::Operand::None, "the next listed value, or one step more" },
      { "previous", Verb::Operand::None, "the listed value before, or one step less" } }
};

} // namespace tulo
