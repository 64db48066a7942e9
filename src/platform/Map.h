#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/Handler.h"
#include "platform/Object.h"

namespace lm {

/// A handler that keeps numbered, persisted objects and answers the object commands: list, read,
/// add, set, remove. Every change is first offered to a hook and made only when the hook's reply is
/// no error; the hook's reply is the answer. If the change then cannot be stored, the hook of the
/// reverse change is called and the request is refused. Use it through Map<T>.
class AMap : public Handler {
 public:
  /// Objects are kept in the store directory `storePath`, with ids from `lowest` to `highest`,
  /// which is given as a signed number: -2 is 0xFFFFFFFE.
  AMap(std::string storePath, uint32_t lowest, int32_t highest);
  ~AMap() override;

  /// Loads the persisted objects; no hook is called. A record that does not decode is set aside
  /// and reported.
  void init();

  [[nodiscard]] message dispatch(const message& request, uint32_t command) override;

  /// The record of an object (its id, then its fields), or the error "no such object".
  [[nodiscard]] virtual message getObject(uint32_t id);

  /// For the platform's own code.
  class MapState;

 protected:
  [[nodiscard]] virtual std::unique_ptr<Object> makeObject() const = 0;
  [[nodiscard]] virtual message hookAdded(Object& added) = 0;
  [[nodiscard]] virtual message hookSet(Object& before, Object& after) = 0;
  [[nodiscard]] virtual message hookRemoved(Object& removed) = 0;

  /// In rising order of id; owned by the map, valid until the next change.
  [[nodiscard]] std::vector<Object*> allObjects() const;

 private:
  [[nodiscard]] message add(const message& request);
  [[nodiscard]] message set(const message& request);
  [[nodiscard]] message remove(const message& request);

  std::unique_ptr<MapState> mapState_;  // never null
};

/// An object map of objects of one class.
template <typename T>
class Map : public AMap {
 public:
  using AMap::AMap;

  /// In rising order of id; owned by the map, valid until the next change.
  [[nodiscard]] std::vector<T*> objects() const {
    std::vector<T*> result;
    for (Object* object : allObjects()) result.push_back(static_cast<T*>(object));
    return result;
  }

 protected:
  /// `added` is not in the map yet.
  [[nodiscard]] virtual message objectAdded(T& added) = 0;
  /// `before` is in the map, `after` has the same id and takes its place.
  [[nodiscard]] virtual message objectSet(T& before, T& after) = 0;
  /// `removed` is still in the map.
  [[nodiscard]] virtual message objectRemoved(T& removed) = 0;

 private:
  std::unique_ptr<Object> makeObject() const final { return std::make_unique<T>(); }
  message hookAdded(Object& added) final { return objectAdded(static_cast<T&>(added)); }
  message hookSet(Object& before, Object& after) final {
    return objectSet(static_cast<T&>(before), static_cast<T&>(after));
  }
  message hookRemoved(Object& removed) final { return objectRemoved(static_cast<T&>(removed)); }
};

}  // namespace lm
