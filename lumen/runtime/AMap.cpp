#include <map>
#include <optional>
#include <utility>

#include "lumen/runtime/Fields.h"
#include "lumen/runtime/Log.h"
#include "lumen/runtime/Paging.h"
#include "lumen/runtime/RecordDirectory.h"
#include "lumen/runtime/Refusal.h"
#include "platform/Keys.h"
#include "platform/Map.h"

namespace lm {
namespace {

using Objects = std::map<uint32_t, std::unique_ptr<Object>>;

message configOf(const Object& object) {
  message config;
  object.getConfig(config);
  return config;
}

message recordOf(const Object& object) { return makeRecord(object.id, configOf(object)); }

/// What undoes a change: `command` on the object, with the fields of `config`.
message undoOf(uint32_t command, uint32_t id, const message& config) {
  message undo;
  undo.insert_u32(key::command, command);
  const message record = makeRecord(id, config);
  for (const Field& field : record.fields()) {
    undo.fields().append(field.key, field.value);
  }
  return undo;
}

/// Whether the hook agrees to undo what could not be stored. When it does not, the change stands
/// until the end of the process.
bool isDone(const message& reply) {
  if (isError(reply)) logLine("store: a change that was not stored stays: ", getError(reply));
  return !isError(reply);
}

}  // namespace

class AMap::MapState {
 public:
  MapState(std::string storePath, uint32_t lowestId, uint32_t highestId)
      : records(std::move(storePath)), lowest(lowestId), highest(highestId) {}

  [[nodiscard]] Object* find(uint32_t id) const {
    const auto found = objects.find(id);
    return found == objects.end() ? nullptr : found->second.get();
  }

  /// The lowest id that no object has, if any.
  [[nodiscard]] std::optional<uint32_t> freeId() const {
    uint64_t id = lowest;
    for (const auto& [taken, object] : objects) {
      if (taken != id) break;
      ++id;
    }
    if (id > highest) return std::nullopt;
    return static_cast<uint32_t>(id);
  }

  RecordDirectory records;
  const uint32_t lowest;
  const uint32_t highest;
  Objects objects;
};

AMap::AMap(std::string storePath, uint32_t lowest, int32_t highest)
    : mapState_(std::make_unique<MapState>(std::move(storePath), lowest,
                                           static_cast<uint32_t>(highest))) {}

AMap::~AMap() = default;

void AMap::init() {
  for (uint32_t id : mapState_->records.numbers()) {
    if (id < mapState_->lowest || id > mapState_->highest) continue;
    const std::optional<message> record = mapState_->records.read(id);
    if (!record) continue;
    std::unique_ptr<Object> object = makeObject();
    object->id = id;
    object->setConfig(*record);
    mapState_->objects[id] = std::move(object);
  }
}

message AMap::dispatch(const message& request, uint32_t command) {
  switch (command) {
    case cmd::readObject:
      return getObject(request.get_u32(key::objectId, none));
    case cmd::readAll:
      return pagedAnswer(
          request, mapState_->objects,
          [](uint32_t, const std::unique_ptr<Object>& object) { return recordOf(*object); });
    case cmd::addObject:
      return add(request);
    case cmd::setObject:
      return set(request);
    case cmd::removeObject:
      return remove(request);
    default:
      return Handler::dispatch(request, command);
  }
}

message AMap::getObject(uint32_t id) {
  const Object* object = mapState_->find(id);
  return object ? recordOf(*object) : refusal("no such object");
}

std::vector<Object*> AMap::allObjects() const {
  std::vector<Object*> result;
  for (const auto& [id, object] : mapState_->objects) result.push_back(object.get());
  return result;
}

message AMap::add(const message& request) {
  const std::optional<uint32_t> freeId = mapState_->freeId();
  if (!freeId) return refusal("no free object id");
  const uint32_t id = request.get_u32(key::objectId, *freeId);
  if (id < mapState_->lowest || id > mapState_->highest) return refusal("object id out of range");
  if (mapState_->find(id)) return refusal("object exists already");
  std::unique_ptr<Object> added = makeObject();
  added->id = id;
  added->setConfig(request);

  std::unique_ptr<RecordDirectory::Pending> record;
  if (added->isStorable()) {
    record = mapState_->records.prepare(id, configOf(*added));
    if (!record) return refusal("could not be stored");
  }
  message reply = hookAdded(*added);
  if (isError(reply)) return reply;
  Object& object = *(mapState_->objects[id] = std::move(added));
  if (record && !record->commit() && isDone(hookRemoved(object))) {
    mapState_->objects.erase(id);
    return refusal("could not be stored");
  }
  if (object.needNotify()) notifyChange(id, configOf(object));
  if (object.isUndoable()) {
    sendUndo(request, undoOf(cmd::removeObject, id, {}), object.getName() + " added");
  }
  reply.insert_u32(key::objectId, id);
  return reply;
}

message AMap::set(const message& request) {
  const uint32_t id = request.get_u32(key::objectId, none);
  Object* before = mapState_->find(id);
  if (!before) return refusal("no such object");
  const message oldConfig = configOf(*before);
  std::unique_ptr<Object> after = makeObject();
  after->id = id;
  after->setConfig(oldConfig);
  after->setConfig(request);

  std::unique_ptr<RecordDirectory::Pending> record;
  if (after->isStorable()) {
    record = mapState_->records.prepare(id, configOf(*after));
    if (!record) return refusal("could not be stored");
  } else if (before->isStorable()) {
    record = mapState_->records.prepareRemoval(id);
    if (!record) return refusal("could not be removed");
  }
  message reply = hookSet(*before, *after);
  if (isError(reply)) return reply;
  Object& object = *after;
  std::swap(mapState_->objects[id], after);
  // A record that is to be removed is gone already: its file has another name, and is not read
  // again even if it cannot be deleted.
  const bool stored = !record || record->commit() || !object.isStorable();
  if (!stored && isDone(hookSet(object, *before))) {
    std::swap(mapState_->objects[id], after);
    return refusal("could not be stored");
  }
  if (object.needNotify()) notifyChange(id, configOf(object));
  if (object.isUndoable()) {
    sendUndo(request, undoOf(cmd::setObject, id, oldConfig), object.getName() + " changed");
  }
  return reply;
}

message AMap::remove(const message& request) {
  const uint32_t id = request.get_u32(key::objectId, none);
  Object* object = mapState_->find(id);
  if (!object) return refusal("no such object");

  std::unique_ptr<RecordDirectory::Pending> record;
  if (object->isStorable()) {
    record = mapState_->records.prepareRemoval(id);
    if (!record) return refusal("could not be removed");
  }
  message reply = hookRemoved(*object);
  if (isError(reply)) return reply;
  if (record) record->commit();  // the record is gone already, as in set()

  const auto removed = std::move(mapState_->objects.extract(id).mapped());
  const message config = configOf(*removed);
  if (removed->needNotify()) {
    message last = config;
    last.insert_u32(key::removed, 1);
    notifyChange(id, last);
  }
  if (removed->isUndoable()) {
    sendUndo(request, undoOf(cmd::addObject, id, config), removed->getName() + " removed");
  }
  return reply;
}

}  // namespace lm
