#include "crash_states.h"

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>

namespace marlo::e2e {

namespace {

// The name inside `dir` for a device path (empty for the directory itself);
// false when the path lies elsewhere.
bool name_in(const std::string& dir, const std::string& path, std::string* name) {
  if (path.compare(0, dir.size(), dir) != 0 && path + "/" != dir) return false;
  *name = path.size() > dir.size() ? path.substr(dir.size()) : "";
  return name->find('/') == std::string::npos;
}

void apply(sim::Bytes& file, const FileOp& op, uint64_t from, uint64_t to) {
  if (op.kind == FileOp::Truncate) {
    file.resize(op.length, 0);
    return;
  }
  if (file.size() < op.offset + to) file.resize(op.offset + to, 0);
  std::copy(op.data.begin() + static_cast<long>(from), op.data.begin() + static_cast<long>(to),
            file.begin() + static_cast<long>(op.offset + from));
}

// One choice of pending data operations: for each chosen operation, the
// byte range of it that reached the disk.
struct Piece {
  size_t op;
  uint64_t from, to;
};

struct Model {
  const std::vector<FileOp>& ops;
  std::vector<sim::Bytes> durable;  // each inode's synced contents
  std::vector<int> op_inode;        // the inode of each data operation and file sync, the new one of a creation
  std::map<std::string, int> names, durable_names;
  std::vector<size_t> pending_dir, pending_data;  // operations not yet synced, in their order

  explicit Model(const std::vector<FileOp>& o) : ops(o), op_inode(o.size(), -1) {}

  void step(size_t i) {
    const FileOp& op = ops[i];
    if (op.kind == FileOp::Create) {
      durable.emplace_back();
      op_inode[i] = static_cast<int>(durable.size() - 1);
    }
    if (op.kind == FileOp::Create || op.kind == FileOp::Unlink ||
        (op.kind == FileOp::Rename && names.count(op.path) != 0)) {
      apply_dir(names, i);
      pending_dir.push_back(i);
    } else if (op.kind == FileOp::Sync && op.path.empty()) {
      for (size_t d : pending_dir) apply_dir(durable_names, d);
      pending_dir.clear();
    } else if (op.kind != FileOp::Rename && names.count(op.path) != 0) {  // a write, truncation or sync of a file
      const int inode = op_inode[i] = names[op.path];
      if (op.kind != FileOp::Sync) {
        pending_data.push_back(i);
        return;
      }
      const auto synced = [&](size_t p) { return op_inode[p] == inode; };
      for (size_t p : pending_data) {
        if (synced(p)) apply(durable[static_cast<size_t>(inode)], ops[p], 0, ops[p].length);
      }
      pending_data.erase(std::remove_if(pending_data.begin(), pending_data.end(), synced), pending_data.end());
    }
  }

  void apply_dir(std::map<std::string, int>& entries, size_t d) const {
    const FileOp& op = ops[d];
    if (op.kind == FileOp::Create) entries[op.path] = op_inode[d];
    if (op.kind == FileOp::Unlink) entries.erase(op.path);
    if (op.kind == FileOp::Rename && entries.count(op.path) != 0) {
      entries[op.to] = entries[op.path];
      entries.erase(op.path);
    }
  }

  // Choices of pending data operations: every subset of up to eight of them
  // (otherwise every prefix and every single one left out), and each write
  // torn at each block boundary after the ones before it.
  std::vector<std::pair<std::string, std::vector<Piece>>> data_choices(size_t block) const {
    const std::vector<size_t>& pending = pending_data;
    std::vector<std::pair<std::string, std::vector<Piece>>> choices;
    auto whole = [&](size_t p) { return Piece{p, 0, ops[p].length}; };
    const size_t n = pending.size();
    const auto add_kept = [&](auto kept) {
      std::vector<Piece> pieces;
      std::string how = "kept:";
      for (size_t j = 0; j < n; ++j) {
        if (!kept(j)) continue;
        pieces.push_back(whole(pending[j]));
        how += " " + std::to_string(pending[j]);
      }
      choices.emplace_back(how, pieces);
    };
    if (n <= 8) {
      for (uint32_t mask = 0; mask < (1u << n); ++mask) add_kept([&](size_t j) { return ((mask >> j) & 1u) != 0; });
    } else {
      for (size_t j = 0; j <= n; ++j) {
        add_kept([&](size_t k) { return k < j; });   // a prefix
        add_kept([&](size_t k) { return k != j; });  // all but one (all, for j == n)
      }
    }
    for (size_t j = 0; j < n; ++j) {
      const FileOp& op = ops[pending[j]];
      if (op.kind != FileOp::Write) continue;
      std::vector<Piece> before;
      for (size_t k = 0; k < j; ++k) before.push_back(whole(pending[k]));
      for (uint64_t cut = (op.offset / block + 1) * block - op.offset; cut < op.length; cut += block) {
        for (bool head : {true, false}) {
          std::vector<Piece> pieces = before;
          pieces.push_back(head ? Piece{pending[j], 0, cut} : Piece{pending[j], cut, op.length});
          choices.emplace_back("op " + std::to_string(pending[j]) + " torn at " + std::to_string(cut) +
                                   (head ? ", head kept" : ", tail kept"),
                               pieces);
        }
      }
    }
    return choices;
  }

  std::vector<DurableBlock> durable_blocks(size_t cut) const {
    std::vector<DurableBlock> blocks;
    for (size_t a = 0; a < cut; ++a) {
      if (ops[a].kind != FileOp::Answered) continue;
      size_t i = a;
      while (i > 0 && ops[i - 1].kind != FileOp::Write) --i;
      if (i == 0 || op_inode[--i] < 0) continue;
      const FileOp& op = ops[i];
      bool touched = false;
      for (size_t j = i + 1; j < cut; ++j) {
        if (op_inode[j] != op_inode[i]) continue;
        const FileOp& later = ops[j];
        touched = touched || later.kind == FileOp::Truncate ||
                  (later.kind == FileOp::Write && later.offset < op.offset + op.length &&
                   op.offset < later.offset + later.length);
      }
      if (touched) continue;
      for (const auto& [name, inode] : names) {
        if (inode == op_inode[i]) blocks.push_back({name, op.offset, op.data});
      }
    }
    return blocks;
  }
};

}  // namespace

std::vector<FileOp> read_journal(const std::string& journal, const std::string& dir, const AnswerCheck& answered_done) {
  std::ifstream in(journal, std::ios::binary);
  std::vector<FileOp> ops;
  // One operation a line: a kind letter, a path, then its numbers; a write's
  // or a packet's bytes follow the line.
  for (std::string line; std::getline(in, line);) {
    std::istringstream fields(line);
    char kind = 0;
    std::string path, to;
    FileOp op{FileOp::Sync, "", "", 0, 0, {}};
    if (!(fields >> kind >> path)) break;
    const bool ours = name_in(dir, path, &op.path);
    if (kind == 'R' && !(fields >> to && name_in(dir, to, &op.to))) continue;
    if (kind == 'T') fields >> op.length;
    if (kind == 'W' || kind == 'P') {
      if (!((kind == 'P' || fields >> op.offset) && fields >> op.length)) return ops;
      op.data.resize(op.length);
      in.read(reinterpret_cast<char*>(op.data.data()), static_cast<std::streamsize>(op.length));
      in.ignore(1);  // the newline after the bytes
    }
    if (kind == 'P') {
      if (answered_done(path, op.data)) ops.push_back(FileOp{FileOp::Answered, "", "", 0, 0, {}});
      continue;
    }
    const size_t known = std::string("CWTSRU").find(kind);  // in the order of FileOp::Kind
    if (known == std::string::npos) return ops;
    op.kind = static_cast<FileOp::Kind>(known);
    if (ours && (op.kind == FileOp::Sync || !op.path.empty())) ops.push_back(std::move(op));
  }
  return ops;
}

std::vector<CrashState> crash_states(const std::vector<FileOp>& ops, size_t block_size, size_t* generated) {
  Model model(ops);
  std::vector<CrashState> states;
  // A state is its files and the places of its durable blocks.
  std::set<std::pair<std::map<std::string, sim::Bytes>, std::vector<std::pair<std::string, uint64_t>>>> seen;
  *generated = 0;
  for (size_t cut = 0; cut <= ops.size(); ++cut) {
    if (cut > 0) model.step(cut - 1);
    const std::vector<DurableBlock> durable = model.durable_blocks(cut);
    std::vector<std::pair<std::string, uint64_t>> places;
    for (const DurableBlock& block : durable) places.emplace_back(block.name, block.offset);
    const auto choices = model.data_choices(block_size);
    for (size_t dirs = 0; dirs <= model.pending_dir.size(); ++dirs) {
      std::map<std::string, int> entries = model.durable_names;
      for (size_t d = 0; d < dirs; ++d) model.apply_dir(entries, model.pending_dir[d]);
      for (const auto& [how, pieces] : choices) {
        CrashState state{cut, how + "; directory changes kept: " + std::to_string(dirs), {}, durable};
        for (const auto& [name, inode] : entries) {
          sim::Bytes data = model.durable[static_cast<size_t>(inode)];
          for (const Piece& piece : pieces) {
            if (model.op_inode[piece.op] == inode) apply(data, ops[piece.op], piece.from, piece.to);
          }
          state.files[name] = std::move(data);
        }
        ++*generated;
        if (seen.emplace(state.files, places).second) states.push_back(std::move(state));
      }
    }
  }
  return states;
}

}  // namespace marlo::e2e
