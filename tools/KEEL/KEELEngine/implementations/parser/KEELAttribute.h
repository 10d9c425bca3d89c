// One attribute of an element in a component tree: a name and a value,
// both exactly as the parser delivered them (already trimmed).
//
// Owned by the KEELComponent that holds it. A plain value type; no locking.
#ifndef TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_PARSER_KEELATTRIBUTE_H_
#define TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_PARSER_KEELATTRIBUTE_H_

#include <string>

class KEELAttribute {
 public:
  KEELAttribute() = default;
  KEELAttribute(const std::string& name, const std::string& value) : m_name(name), m_value(value) {}
  KEELAttribute(const KEELAttribute&) = default;
  KEELAttribute& operator=(const KEELAttribute&) = default;

  std::string GetName() const { return m_name; }
  std::string GetValue() const { return m_value; }
  void SetValue(const std::string& value) { m_value = value; }

  // True when the names or the values differ.
  bool operator!=(const KEELAttribute& other) const {
    return m_name != other.m_name || m_value != other.m_value;
  }

 private:
  std::string m_name;
  std::string m_value;
};

#endif  // TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_PARSER_KEELATTRIBUTE_H_
