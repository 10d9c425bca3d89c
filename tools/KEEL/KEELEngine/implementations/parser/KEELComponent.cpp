#include "tools/KEEL/KEELEngine/implementations/parser/KEELComponent.h"

KEELComponent::KEELComponent() : m_isLeaf(true), m_pParent(nullptr), m_count(0) {}

KEELComponent::KEELComponent(const std::string& name, const std::string& value)
    : m_isLeaf(true), m_name(name), m_value(value), m_pParent(nullptr), m_count(1) {}

KEELComponent::KEELComponent(const KEELComponent& other)
    : m_isLeaf(true), m_pParent(nullptr), m_count(0) {
  CopyFrom(other);
}

KEELComponent& KEELComponent::operator=(const KEELComponent& other) {
  if (this == &other) {
    return *this;
  }
  // Copied first, so that assigning a component from its own subtree does
  // not read what the clearing destroys.
  KEELComponent copy(other);
  ClearChildren();
  ClearAttributes();
  m_isLeaf = copy.m_isLeaf;
  m_name.swap(copy.m_name);
  m_value.swap(copy.m_value);
  m_pParent = copy.m_pParent;
  m_count = copy.m_count;
  m_children.swap(copy.m_children);
  m_attributes.swap(copy.m_attributes);
  return *this;
}

// Members go in reverse order of declaration: attributes, then children,
// then the strings.
KEELComponent::~KEELComponent() = default;

void KEELComponent::CopyFrom(const KEELComponent& other) {
  m_isLeaf = other.m_isLeaf;
  m_name = other.m_name;
  m_value = other.m_value;
  // Copied as it stands, not re-pointed.
  m_pParent = other.m_pParent;
  m_count = other.m_count;
  for (const auto& child : other.m_children) {
    m_children.push_back(std::make_unique<KEELComponent>(*child));
  }
  for (const auto& attribute : other.m_attributes) {
    m_attributes.push_back(std::make_unique<KEELAttribute>(*attribute));
  }
}

void KEELComponent::AddChild(const std::string& name, const std::string& value) {
  AddChild(new KEELComponent(name, value));
}

void KEELComponent::AddChild(KEELComponent* child) {
  if (child == nullptr || child->m_count == 0) {
    return;
  }
  child->m_pParent = this;
  m_children.push_back(std::unique_ptr<KEELComponent>(child));
  AddToCount(child->m_count);
  m_isLeaf = false;
}

void KEELComponent::RemoveChild(KEELComponent* child) {
  if (child == nullptr) {
    return;
  }
  for (auto it = m_children.begin(); it != m_children.end(); ++it) {
    if (it->get() == child) {
      SubtractFromCount(child->m_count);
      m_children.erase(it);
      return;
    }
  }
}

void KEELComponent::RemoveChildByName(const std::string& name) {
  RemoveChild(FindChild(name));
}

KEELComponent* KEELComponent::FindChild(const std::string& name) const {
  for (const auto& child : m_children) {
    if (child->m_name == name) {
      return child.get();
    }
    KEELComponent* found = child->FindChild(name);
    if (found != nullptr) {
      return found;
    }
  }
  return nullptr;
}

void KEELComponent::AddAttribute(const std::string& name, const std::string& value) {
  m_attributes.push_back(std::make_unique<KEELAttribute>(name, value));
}

void KEELComponent::AddAttribute(KEELAttribute* attribute) {
  if (attribute == nullptr) {
    return;
  }
  m_attributes.push_back(std::unique_ptr<KEELAttribute>(attribute));
}

void KEELComponent::RemoveAttribute(const std::string& name) {
  for (auto it = m_attributes.begin(); it != m_attributes.end(); ++it) {
    if ((*it)->GetName() == name) {
      m_attributes.erase(it);
      return;
    }
  }
}

void KEELComponent::RemoveAttribute(KEELAttribute* attribute) {
  if (attribute == nullptr) {
    return;
  }
  for (auto it = m_attributes.begin(); it != m_attributes.end(); ++it) {
    if (it->get() == attribute) {
      m_attributes.erase(it);
      return;
    }
  }
}

KEELAttribute* KEELComponent::FindAttribute(const std::string& name) const {
  for (const auto& attribute : m_attributes) {
    if (attribute->GetName() == name) {
      return attribute.get();
    }
  }
  return nullptr;
}

std::string KEELComponent::GetAttributeValue(const std::string& name) const {
  const KEELAttribute* attribute = FindAttribute(name);
  return attribute != nullptr ? attribute->GetValue() : std::string();
}

void KEELComponent::ClearAttributes() {
  m_attributes.clear();
}

void KEELComponent::ClearChildren() {
  m_children.clear();
}

void KEELComponent::AddToCount(uint32_t n) {
  for (KEELComponent* node = this; node != nullptr; node = node->m_pParent) {
    node->m_count += n;
  }
}

void KEELComponent::SubtractFromCount(uint32_t n) {
  for (KEELComponent* node = this; node != nullptr; node = node->m_pParent) {
    node->m_count -= n;
  }
}

bool KEELComponent::operator!=(const KEELComponent& other) const {
  if (m_name != other.m_name || m_value != other.m_value || m_isLeaf != other.m_isLeaf ||
      m_pParent != other.m_pParent) {
    return true;
  }
  if (m_children.size() != other.m_children.size() ||
      m_attributes.size() != other.m_attributes.size()) {
    return true;
  }
  for (auto mine = m_children.begin(), theirs = other.m_children.begin(); mine != m_children.end();
       ++mine, ++theirs) {
    if (mine->get() != theirs->get()) {
      return true;
    }
  }
  for (auto mine = m_attributes.begin(), theirs = other.m_attributes.begin();
       mine != m_attributes.end(); ++mine, ++theirs) {
    if (mine->get() != theirs->get()) {
      return true;
    }
  }
  return false;
}
