// The application's IPC methods. The table below is the only place their wire names appear;
// `allIPCMethods()` iterates them in catalogue order and parsing is exact and case-sensitive.
#pragma once

#include "json/Codec.h"

#include <array>
#include <optional>
#include <string_view>
#include <utility>

namespace velko::protocol {

enum class IPCMethod {
  Ping,
  List,
  Selection,
  Get,
  Rate,
  Flag,
  Label,
  EditGet,
  EditSet,
  EditCommit,
  PreviewRender,
  Context,
  AnnotatePending,
  AnnotateSet,
  SimilarFind,
  Query,
  Show,
  Select,
  EditorOpen,
  Favorite,
  Hide,
  Delete,
  EditReset,
  CollectionList,
  CollectionCreate,
  CollectionAdd,
  CollectionRemove,
  KeywordList,
  KeywordCreate,
  KeywordAssign,
  KeywordRemove,
  AlbumList,
  AlbumCreate,
  AlbumAdd,
  AlbumRemove,
  SnapshotList,
  SnapshotSave,
  SnapshotRestore,
  ExportRender,
  Exif,
  ImportAssets,
  VideoCommit,
  LutList,
  Geotag,
  MovieMake,
  MovieList,
};

/// The wire name, for example "photo.rate".
std::string_view rawValue(IPCMethod method);
/// Exact, case-sensitive; absent for any other string.
std::optional<IPCMethod> ipcMethodFromRaw(std::string_view raw);

} // namespace velko::protocol

namespace velko::json {

template <> struct EnumNames<protocol::IPCMethod> {
  using M = protocol::IPCMethod;
  // clang-format off
  static constexpr std::array<std::pair<M, std::string_view>, 46> table = {{
      {M::Ping, "system.ping"},
      {M::List, "library.list"},
      {M::Selection, "library.selection"},
      {M::Get, "photo.get"},
      {M::Rate, "photo.rate"},
      {M::Flag, "photo.flag"},
      {M::Label, "photo.label"},
      {M::EditGet, "edit.get"},
      {M::EditSet, "edit.set"},
      {M::EditCommit, "edit.commit"},
      {M::PreviewRender, "preview.render"},
      {M::Context, "app.context"},
      {M::AnnotatePending, "annotate.pending"},
      {M::AnnotateSet, "annotate.set"},
      {M::SimilarFind, "similar.find"},
      {M::Query, "library.query"},
      {M::Show, "library.show"},
      {M::Select, "library.select"},
      {M::EditorOpen, "editor.open"},
      {M::Favorite, "photo.favorite"},
      {M::Hide, "photo.hide"},
      {M::Delete, "photo.delete"},
      {M::EditReset, "edit.reset"},
      {M::CollectionList, "collection.list"},
      {M::CollectionCreate, "collection.create"},
      {M::CollectionAdd, "collection.add"},
      {M::CollectionRemove, "collection.remove"},
      {M::KeywordList, "keyword.list"},
      {M::KeywordCreate, "keyword.create"},
      {M::KeywordAssign, "keyword.assign"},
      {M::KeywordRemove, "keyword.remove"},
      {M::AlbumList, "album.list"},
      {M::AlbumCreate, "album.create"},
      {M::AlbumAdd, "album.add"},
      {M::AlbumRemove, "album.remove"},
      {M::SnapshotList, "snapshot.list"},
      {M::SnapshotSave, "snapshot.save"},
      {M::SnapshotRestore, "snapshot.restore"},
      {M::ExportRender, "export.render"},
      {M::Exif, "photo.exif"},
      {M::ImportAssets, "library.import"},
      {M::VideoCommit, "video.commit"},
      {M::LutList, "lut.list"},
      {M::Geotag, "photo.geotag"},
      {M::MovieMake, "movie.make"},
      {M::MovieList, "movie.list"},
  }};
  // clang-format on
};

} // namespace velko::json

namespace velko::protocol {

/// Every method, in catalogue order.
constexpr auto allIPCMethods() {
  std::array<IPCMethod, json::EnumNames<IPCMethod>::table.size()> all{};
  for (std::size_t i = 0; i < all.size(); ++i) {
    all[i] = json::EnumNames<IPCMethod>::table[i].first;
  }
  return all;
}

} // namespace velko::protocol
