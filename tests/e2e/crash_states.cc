#include "crash_states.h"

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>

namespace marlo::e2e {

namespace {

std::vector<std::string> split_tabs(const std::string& line) {
  std::vector<std::string> fields;
  std::stringstream in(line);
  std::string field;
  while (std::getline(in, field, '\t')) fields.push_back(field);
  return fields;
}

// The name inside `dir` for a device path; false when the path lies elsewhere.
bool name_in(const std::string& dir, std::string path, std::string* name) {
  if (path + "/" == dir || path == dir) {
    name->clear();
    return true;
  }
  if (path.compare(0, dir.size(), dir) != 0) return false;
  *name = path.substr(dir.size());
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

struct Inode {
  sim::Bytes durable;
  std::vector<size_t> pending;  // data operations since its last sync
};

// One choice of pending data operations: for each chosen operation, the
// byte range of it that reached the disk.
struct Piece {
  size_t op;
  uint64_t from, to;
};

struct Model {
  const std::vector<FileOp>& ops;
  std::vector<Inode> inodes;
  std::vector<int> op_inode;  // inode of each data operation and file sync
  std::map<std::string, int> names, durable_names;
  std::vector<size_t> pending_dir;
  std::vector<int> dir_inode;  // Create: the new inode

  explicit Model(const std::vector<FileOp>& o) : ops(o), op_inode(o.size(), -1), dir_inode(o.size(), -1) {}

  void step(size_t i) {
    const FileOp& op = ops[i];
    switch (op.kind) {
      case FileOp::Create:
      case FileOp::Rename:
      case FileOp::Unlink:
        if (op.kind == FileOp::Rename && names.count(op.path) == 0) break;
        if (op.kind == FileOp::Create) {
          inodes.emplace_back();
          dir_inode[i] = static_cast<int>(inodes.size() - 1);
        }
        apply_dir(names, i);
        pending_dir.push_back(i);
        break;
      case FileOp::Sync:
        if (op.path.empty()) {
          for (size_t d : pending_dir) apply_dir(durable_names, d);
          pending_dir.clear();
        } else if (names.count(op.path) != 0) {
          op_inode[i] = names[op.path];
          Inode& inode = inodes[static_cast<size_t>(op_inode[i])];
          for (size_t p : inode.pending) apply(inode.durable, ops[p], 0, ops[p].length);
          inode.pending.clear();
        }
        break;
      case FileOp::Write:
      case FileOp::Truncate:
        if (names.count(op.path) == 0) break;
        op_inode[i] = names[op.path];
        inodes[static_cast<size_t>(op_inode[i])].pending.push_back(i);
        break;
      case FileOp::Answered:  // changes nothing on the disk
        break;
    }
  }

  void apply_dir(std::map<std::string, int>& entries, size_t d) const {
    const FileOp& op = ops[d];
    if (op.kind == FileOp::Create) entries[op.path] = dir_inode[d];
    if (op.kind == FileOp::Unlink) entries.erase(op.path);
    if (op.kind == FileOp::Rename && entries.count(op.path) != 0) {
      entries[op.to] = entries[op.path];
      entries.erase(op.path);
    }
  }

  std::vector<size_t> pending_data() const {
    std::vector<size_t> all;
    for (const Inode& inode : inodes) all.insert(all.end(), inode.pending.begin(), inode.pending.end());
    std::sort(all.begin(), all.end());
    return all;
  }

  // Choices of pending data operations: every subset of up to eight of them
  // (otherwise every prefix and every single one left out), and each write
  // torn at each block boundary after the ones before it.
  std::vector<std::pair<std::string, std::vector<Piece>>> data_choices(size_t block) const {
    const std::vector<size_t> pending = pending_data();
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

std::string state_key(const CrashState& state) {
  std::string key;
  for (const auto& [name, data] : state.files) {
    key += name + '\0' + std::to_string(data.size()) + '\0';
    key.append(data.begin(), data.end());
  }
  key += '\1';
  for (const DurableBlock& block : state.durable) key += block.name + '@' + std::to_string(block.offset) + ';';
  return key;
}

}  // namespace

std::vector<FileOp> read_journal(const std::string& journal, const std::string& dir, const AnswerCheck& answered_done) {
  std::ifstream in(journal, std::ios::binary);
  std::vector<FileOp> ops;
  std::string line;
  while (std::getline(in, line)) {
    std::vector<std::string> f = split_tabs(line);
    if (f.size() < 2 || f[0].size() != 1) break;
    FileOp op{FileOp::Sync, "", "", 0, 0, {}};
    const bool ours = name_in(dir, f[1], &op.path);
    switch (f[0][0]) {
      case 'C': op.kind = FileOp::Create; break;
      case 'S': op.kind = FileOp::Sync; break;
      case 'U': op.kind = FileOp::Unlink; break;
      case 'T':
        op.kind = FileOp::Truncate;
        op.length = f.size() > 2 ? std::stoull(f[2]) : 0;
        break;
      case 'R':
        op.kind = FileOp::Rename;
        if (f.size() < 3 || !name_in(dir, f[2], &op.to)) continue;
        break;
      case 'P': {
        if (f.size() < 3) return ops;
        sim::Bytes packet(std::stoull(f[2]));
        in.read(reinterpret_cast<char*>(packet.data()), static_cast<std::streamsize>(packet.size()));
        in.ignore(1);
        if (answered_done(f[1], packet)) ops.push_back(FileOp{FileOp::Answered, "", "", 0, 0, {}});
        continue;
      }
      case 'W': {
        op.kind = FileOp::Write;
        if (f.size() < 4) return ops;
        op.offset = std::stoull(f[2]);
        op.length = std::stoull(f[3]);
        op.data.resize(op.length);
        in.read(reinterpret_cast<char*>(op.data.data()), static_cast<std::streamsize>(op.length));
        in.ignore(1);  // the newline after the bytes
        break;
      }
      default: return ops;
    }
    if (ours && (op.kind == FileOp::Sync || !op.path.empty())) ops.push_back(std::move(op));
  }
  return ops;
}

std::vector<CrashState> crash_states(const std::vector<FileOp>& ops, size_t block_size, size_t* generated) {
  Model model(ops);
  std::vector<CrashState> states;
  std::set<std::string> seen;
  *generated = 0;
  for (size_t cut = 0; cut <= ops.size(); ++cut) {
    if (cut > 0) model.step(cut - 1);
    const std::vector<DurableBlock> durable = model.durable_blocks(cut);
    const auto choices = model.data_choices(block_size);
    for (size_t dirs = 0; dirs <= model.pending_dir.size(); ++dirs) {
      std::map<std::string, int> entries = model.durable_names;
      for (size_t d = 0; d < dirs; ++d) model.apply_dir(entries, model.pending_dir[d]);
      for (const auto& [how, pieces] : choices) {
        CrashState state{cut, how + "; directory changes kept: " + std::to_string(dirs), {}, durable};
        for (const auto& [name, inode] : entries) {
          sim::Bytes data = model.inodes[static_cast<size_t>(inode)].durable;
          for (const Piece& piece : pieces) {
            if (model.op_inode[piece.op] == inode) apply(data, ops[piece.op], piece.from, piece.to);
          }
          state.files[name] = std::move(data);
        }
        ++*generated;
        if (seen.insert(state_key(state)).second) states.push_back(std::move(state));
      }
    }
  }
  return states;
}

}  // namespace marlo::e2e
