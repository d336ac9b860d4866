#include "ppapi/cpp/var.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <limits>
#include <utility>

#include "browser_control.h"
#include "ppapi/cpp/var_array.h"
#include "ppapi/cpp/var_dictionary.h"

namespace {

/// The number of live nodes, in parts on separate cache lines: a page and a worker create and free nodes at the same
/// time, and one shared counter would cost each of them more than the allocation.
class LiveNodes {
 public:
  void Add(std::int64_t count) noexcept {
    thread_local const std::size_t part = next_part_.fetch_add(1, std::memory_order_relaxed) % kParts;
    parts_[part].count.fetch_add(count, std::memory_order_relaxed);
  }

  std::int64_t Sum() const noexcept {
    std::int64_t sum = 0;
    for (const Part& part : parts_) sum += part.count.load(std::memory_order_relaxed);
    return sum;
  }

 private:
  static constexpr std::size_t kParts = 16;
  struct alignas(64) Part {
    std::atomic<std::int64_t> count{0};
  };
  std::array<Part, kParts> parts_;
  std::atomic<std::size_t> next_part_{0};
};

constinit LiveNodes g_live_nodes;

}  // namespace

struct PP_VarNode {
  PP_VarNode() = default;
  PP_VarNode(const PP_VarNode&) = delete;
  PP_VarNode& operator=(const PP_VarNode&) = delete;
  virtual ~PP_VarNode() = default;

  /// Destroys the node, which has no references any more. It releases the references that it holds and adds the nodes
  /// without further references to the list `dead`.
  virtual void Retire(PP_VarNode** /*dead*/) noexcept { delete this; }

  std::atomic<std::uint32_t> references{1};
  PP_VarNode* next_dead = nullptr;
};

namespace pp {
namespace {

/// Releases one reference to the node of `var`, which must have one, and adds the node to the list `dead` if it was the
/// last.
void ReleaseReference(const PP_Var& var, PP_VarNode** dead) noexcept {
  PP_VarNode* const node = var.value.as_node;
  if (node == nullptr) return;
  // The only owner of a node can release it without an atomic operation.
  if (node->references.load(std::memory_order_acquire) != 1 &&
      node->references.fetch_sub(1, std::memory_order_acq_rel) != 1) {
    return;
  }
  node->next_dead = std::exchange(*dead, node);
}

void ReleaseChild(Var* child, PP_VarNode** dead) noexcept {
  if (child->is_string() || child->is_array() || child->is_dictionary()) ReleaseReference(child->Detach(), dead);
}

struct StringNode final : PP_VarNode {
  explicit StringNode(std::string_view utf8) : text(utf8) {}
  const std::string text;
};

struct ArrayNode final : PP_VarNode {
  void Retire(PP_VarNode** dead) noexcept override {
    for (Var& value : values) ReleaseChild(&value, dead);
    delete this;
  }
  std::vector<Var> values;
};

/// Entries are sorted by key. The dictionaries of messages have few entries, for which a sorted vector is fastest to
/// read and copy; if keys are set in order, each costs only an append, even in a large dictionary.
struct DictionaryNode final : PP_VarNode {
  struct Entry {
    std::string key;
    Var value;
  };

  void Retire(PP_VarNode** dead) noexcept override;

  /// The entry of `key`, or the one before which it has to be inserted.
  std::vector<Entry>::iterator LowerBound(std::string_view key) {
    if (entries.empty() || entries.back().key < key) return entries.end();
    return std::lower_bound(entries.begin(), entries.end(), key,
                            [](const Entry& entry, std::string_view wanted) { return entry.key < wanted; });
  }

  /// The value under `key`, or null.
  const Var* Find(std::string_view key) {
    // For few entries, comparing for equality is faster, since the lengths usually differ.
    const auto entry = entries.size() <= 8 ? std::find_if(entries.begin(), entries.end(),
                                                          [key](const Entry& one) { return one.key == key; })
                                           : LowerBound(key);
    return entry != entries.end() && entry->key == key ? &entry->value : nullptr;
  }

  std::vector<Entry> entries;
};

/// A few unused dictionaries, with the memory of their entries. A reply is created on the worker and freed on the
/// page's thread, which is slow in the allocator. The spares save about a seventh of a warm message's time.
class SpareDictionaries {
 public:
  /// An empty dictionary, owned by the caller. Any thread.
  DictionaryNode* Take() {
    for (std::atomic<DictionaryNode*>& slot : slots_) {
      if (slot.load(std::memory_order_relaxed) == nullptr) continue;
      if (DictionaryNode* const node = slot.exchange(nullptr, std::memory_order_acquire)) return node;
    }
    return new DictionaryNode;
  }

  /// Takes over `node`, which must be in its initial state. Any thread.
  void Put(DictionaryNode* node) noexcept {
    if (node->entries.capacity() <= kMostEntries) {
      for (std::atomic<DictionaryNode*>& slot : slots_) {
        DictionaryNode* none = nullptr;
        if (slot.load(std::memory_order_relaxed) == none && slot.compare_exchange_strong(none, node)) return;
      }
    }
    delete node;
  }

 private:
#if defined(MIRADO_SANITIZE_ADDRESS)
  static constexpr std::size_t kSpares = 0;  // so that the sanitizer detects the use of a freed one
#else
  static constexpr std::size_t kSpares = 8;
#endif
  static constexpr std::size_t kMostEntries = 16;

  alignas(64) std::array<std::atomic<DictionaryNode*>, kSpares> slots_{};
};

constinit SpareDictionaries g_spare_dictionaries;

void DictionaryNode::Retire(PP_VarNode** dead) noexcept {
  for (Entry& entry : entries) ReleaseChild(&entry.value, dead);
  entries.clear();
  references.store(1, std::memory_order_relaxed);
  g_spare_dictionaries.Put(this);
}

/// A variable that owns the only reference to `node`, which may be null.
PP_Var MakeVar(PP_VarType type, PP_VarNode* node) noexcept {
  if (node != nullptr) g_live_nodes.Add(1);
  PP_Var var{};
  var.type = type;
  var.value.as_node = node;
  return var;
}

/// A string variable with the only reference; an empty text has no node.
PP_Var MakeString(std::string_view utf8) {
  return MakeVar(PP_VARTYPE_STRING, utf8.empty() ? nullptr : new StringNode(utf8));
}

ArrayNode& ArrayOf(const PP_Var& var) noexcept { return *static_cast<ArrayNode*>(var.value.as_node); }
DictionaryNode& DictionaryOf(const PP_Var& var) noexcept { return *static_cast<DictionaryNode*>(var.value.as_node); }

}  // namespace

Var::Var(const char* utf8) : var_(MakeString(utf8)) {}
Var::Var(const std::string& utf8) : var_(MakeString(utf8)) {}

void Var::AddReference() const noexcept {
  if (PP_VarNode* const node = var_.value.as_node) node->references.fetch_add(1, std::memory_order_relaxed);
}

/// A list instead of recursion: a page's message may be nested too deep for the stack.
void Var::DropReference() noexcept {
  PP_VarNode* dead = nullptr;
  ReleaseReference(var_, &dead);
  while (dead != nullptr) {
    PP_VarNode* const node = std::exchange(dead, dead->next_dead);
    g_live_nodes.Add(-1);
    node->Retire(&dead);
  }
}

bool Var::AsBool() const noexcept { return is_bool() && var_.value.as_bool; }

std::int32_t Var::AsInt() const noexcept {
  using Limits = std::numeric_limits<std::int32_t>;
  if (is_int()) return var_.value.as_int;
  if (!is_double() || std::isnan(var_.value.as_double)) return 0;
  return static_cast<std::int32_t>(std::clamp<double>(var_.value.as_double, Limits::min(), Limits::max()));
}

double Var::AsDouble() const noexcept {
  if (is_double()) return var_.value.as_double;
  return is_int() ? var_.value.as_int : 0.0;
}

std::string Var::AsString() const {
  if (!is_string() || var_.value.as_node == nullptr) return {};
  return static_cast<const StringNode*>(var_.value.as_node)->text;
}

VarArray::VarArray() : Var(PASS_REF, MakeVar(PP_VARTYPE_ARRAY, new ArrayNode)) {}

VarArray::VarArray(const Var& var) : Var(var.is_array() ? var : VarArray()) {}

Var VarArray::Get(std::uint32_t index) const {
  const std::vector<Var>& values = ArrayOf(var_).values;
  return index < values.size() ? values[index] : Var();
}

void VarArray::Set(std::uint32_t index, const Var& value) {
  std::vector<Var>& values = ArrayOf(var_).values;
  if (index < values.size()) {
    values[index] = value;
    return;
  }
  values.resize(index);
  values.push_back(value);
}

std::uint32_t VarArray::GetLength() const { return static_cast<std::uint32_t>(ArrayOf(var_).values.size()); }

VarDictionary::VarDictionary() : Var(PASS_REF, MakeVar(PP_VARTYPE_DICTIONARY, g_spare_dictionaries.Take())) {}

VarDictionary::VarDictionary(const Var& var) : Var(var.is_dictionary() ? var : VarDictionary()) {}

Var VarDictionary::Get(std::string_view key) const {
  const Var* value = DictionaryOf(var_).Find(key);
  return value != nullptr ? *value : Var();
}

bool VarDictionary::HasKey(std::string_view key) const { return DictionaryOf(var_).Find(key) != nullptr; }

void VarDictionary::Set(std::string_view key, const Var& value) {
  DictionaryNode& node = DictionaryOf(var_);
  if (node.entries.empty()) node.entries.reserve(4);  // as many as a reply has
  const auto entry = node.LowerBound(key);
  if (entry != node.entries.end() && entry->key == key) {
    entry->value = value;
  } else {
    node.entries.insert(entry, {std::string(key), value});
  }
}

std::vector<std::string> VarDictionary::GetKeys() const {
  const auto& entries = DictionaryOf(var_).entries;
  std::vector<std::string> keys;
  keys.reserve(entries.size());
  for (const auto& entry : entries) keys.push_back(entry.key);
  return keys;
}

std::int64_t browser::LiveVarNodes() { return g_live_nodes.Sum(); }

}  // namespace pp
