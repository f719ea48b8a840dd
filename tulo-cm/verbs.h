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
    { { "set", Verb::Operand::Value, "the operand itself" },
      { "add", Verb::Operand::Number, "the value plus the operand" },
      { "multiply", Verb::Operand::Number, "the value times the operand" },
      { "toggle", Verb::Operand::None, "the other truth value" },
      { "append", Verb::Operand::Element, "the value with the operand at its end" },
      { "remove", Verb::Operand::Element, "the value without the operand" },
      { "next", Verb::Operand::None, "the next listed value, or one step more" },
      { "previous", Verb::Operand::None, "the listed value before, or one step less" } }
};

} // namespace tulo
