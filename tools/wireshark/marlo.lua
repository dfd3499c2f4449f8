-- Wireshark dissector for the traffic between marlod and the Marlo co-processor, as marlo-sim captures it
-- (docs/wire.md). One pcapng interface per path, each with its own user link type:
--   USER0 control-device requests and answers   USER1 DFU channel     USER2 misc-data channel
--   USER3 RMA channel                           USER4 uevents
-- Directions come from the packet flags: outbound = daemon -> device, inbound = device -> daemon.
-- Every record of a device-node connection carries its stream (epb_queue, the connections of a node numbered
-- from 1), shown as marlo.stream; control requests are paired with the answer on their own connection.
--
-- Use:  tshark -X lua_script:tools/wireshark/marlo.lua -r session.pcapng
--       wireshark -X lua_script:tools/wireshark/marlo.lua session.pcapng
--
-- Every read is checked against the bytes the packet holds: a short or lying message gets expert info and
-- the fields it does carry, never an exception. Pairing of requests and answers is worked out on the first
-- pass over the file (in capture order) and kept per frame, so the GUI shows the same when it dissects again.

local marlo = Proto("marlo", "Marlo co-processor")

-- Bit operations: the bit32 library where the Lua has it, the native operators otherwise.
local band, bxor, rshift
if bit32 then
  band, bxor, rshift = bit32.band, bit32.bxor, bit32.rshift
else
  band, bxor, rshift = load("return function(a, b) return a & b end, function(a, b) return a ~ b end, " ..
                            "function(a, n) return a >> n end")()
end

-- The reflected CRC-32 of IEEE 802.3 (polynomial 0xEDB88320), in pieces: crc_update(crc_init, s)... crc_final.
local crc_table = {}
for i = 0, 255 do
  local c = i
  for _ = 1, 8 do
    if band(c, 1) ~= 0 then c = bxor(0xEDB88320, rshift(c, 1)) else c = rshift(c, 1) end
  end
  crc_table[i] = c
end
local CRC_INIT = 0xFFFFFFFF
-- A message whose data a capture left out (its captured length below its
-- original one): lengths are checked against the original, CRCs not at all.
local recorded_in_part = "message recorded in part"
local function crc_update(crc, s)
  for i = 1, #s, 4096 do
    local bytes = { s:byte(i, math.min(i + 4095, #s)) }
    for j = 1, #bytes do crc = bxor(crc_table[band(bxor(crc, bytes[j]), 0xFF)], rshift(crc, 8)) end
  end
  return crc
end
local function crc_final(crc) return bxor(crc, 0xFFFFFFFF) end

local OUTBOUND, INBOUND = 0, 1  -- pinfo.p2p_dir: sent by the daemon, received by the daemon

-- Value names -----------------------------------------------------------------------------------------------
local dfu_cmds = {
  [1] = "MG_UPDT_REQ", [2] = "MG_UPDT_RESP", [3] = "IMG_INFO_REQ", [4] = "IMG_INFO_RESP",
  [5] = "IMG_OFFSET_REQ", [6] = "IMG_OFFSET_RESP", [7] = "CANCEL_UPDT_REQ", [8] = "CANCEL_UPDT_RESP",
  [9] = "IMG_UPDT_END_REQ", [10] = "IMG_UPDT_END_RESP", [11] = "SESSION_END_REQ", [12] = "SESSION_END_RESP",
  [13] = "DFU_SPCL_OPERATION_REQ", [14] = "DFU_SPCL_OPERATION_RESP",
}
local spcl_ops = { [0] = "RAW_FLASH_ERASE", [1] = "GET_DFU_STATE" }
local dfu_states = { [0] = "INIT", [1] = "INFO_REQ", [2] = "OFFSET_REQ", [3] = "SESSION_END_REQ",
                     [4] = "CANCEL_UPDATE_REQ" }
local misc_kinds = { [0] = "START", [1] = "DATA_MORE", [2] = "DATA_LAST", [4] = "CRC", [5] = "FINISH" }
local rma_cmds = {
  [0] = "CONNECT", [1] = "CONNECT_RESP", [2] = "DISCONNECT", [3] = "DISCONNECT_RESP",
  [256] = "DATA_READ", [257] = "DATA_READ_RESP", [512] = "DATA_WRITE", [513] = "DATA_WRITE_RESP",
}
local ctl_requests = { [0x80205603] = "SPI_FREE", [0x80205604] = "SPI_BUSY", [0xc0205605] = "RESET",
                       [0xc0205608] = "IPC_CMD", [0xc0205609] = "BOOT_CMD" }
local boot_cmds = { [0] = "SOFT_RESET", [1] = "TWM_EXIT", [3] = "LOAD", [4] = "UNLOAD", [5] = "SET_BOOT_MODE",
                    [6] = "GET_BOOT_MODE", [7] = "SAVE_DUMP", [8] = "BOOT_STATUS" }
local boot_modes = { [0] = "HOST", [1] = "FLASH" }
local marlo_events = { [1] = "powered down", [4] = "powered up" }
local crc_status = { [0] = "Bad", [1] = "Good" }

-- Fields ----------------------------------------------------------------------------------------------------
local F = {}
local function field(key, ...) F[key] = ... ; return F[key] end
local u32, hex = base.DEC, base.HEX
-- Common to every channel: pairing and the channel's life.
field("response_in", ProtoField.framenum("marlo.response_in", "Answered in", base.NONE, frametype.RESPONSE))
field("response_to", ProtoField.framenum("marlo.response_to", "Answer to", base.NONE, frametype.REQUEST))
field("time", ProtoField.relative_time("marlo.time", "Time since request"))
field("event", ProtoField.string("marlo.event", "Channel event"))
field("stream", ProtoField.uint32("marlo.stream", "Connection stream", base.DEC))
field("cut", ProtoField.uint32("marlo.cut", "Bytes cut from the capture", base.DEC))
-- DFU channel.
field("dfu", ProtoField.none("marlo.dfu", "DFU message"))
field("dfu_cmd", ProtoField.uint32("marlo.dfu.cmd", "Command", u32, dfu_cmds))
field("dfu_magic", ProtoField.uint32("marlo.dfu.magic", "Magic", hex))
field("dfu_length", ProtoField.uint32("marlo.dfu.length", "Total length", u32))
field("dfu_crc", ProtoField.uint32("marlo.dfu.crc", "CRC", hex))
field("dfu_crc_status", ProtoField.uint8("marlo.dfu.crc.status", "CRC status", u32, crc_status))
field("dfu_crc_calc", ProtoField.uint32("marlo.dfu.crc.computed", "Computed CRC", hex))
field("dfu_image_id", ProtoField.uint32("marlo.dfu.image_id", "Image id", u32))
field("dfu_offset", ProtoField.uint32("marlo.dfu.offset", "Offset", u32))
field("dfu_fragment_len", ProtoField.uint32("marlo.dfu.fragment_len", "Fragment length", u32))
field("dfu_image_size", ProtoField.uint32("marlo.dfu.image_size", "Image size", u32))
field("dfu_fragment", ProtoField.bytes("marlo.dfu.fragment", "Fragment"))
field("dfu_word", ProtoField.uint32("marlo.dfu.word", "Word", hex))
field("dfu_tag", ProtoField.string("marlo.dfu.tag", "Tag"))
field("dfu_op", ProtoField.uint32("marlo.dfu.spcl.op", "Special operation", u32, spcl_ops))
field("dfu_erase_offset", ProtoField.uint32("marlo.dfu.erase.offset", "Erase offset", hex))
field("dfu_erase_length", ProtoField.uint32("marlo.dfu.erase.length", "Erase length", u32))
field("dfu_code", ProtoField.uint32("marlo.dfu.spcl.code", "Response code", u32))
field("dfu_state", ProtoField.uint32("marlo.dfu.state", "DFU state", u32, dfu_states))
field("dfu_extra", ProtoField.bytes("marlo.dfu.extra", "Bytes beyond the length"))
-- Misc-data channel.
field("misc", ProtoField.none("marlo.misc", "Misc-data packet"))
field("misc_kind", ProtoField.uint32("marlo.misc.kind", "Kind", u32, misc_kinds))
field("misc_type", ProtoField.uint32("marlo.misc.type", "Resource type", u32))
field("misc_length", ProtoField.uint32("marlo.misc.length", "Length", u32))
field("misc_seq", ProtoField.uint32("marlo.misc.seq", "Sequence", u32))
field("misc_data", ProtoField.bytes("marlo.misc.data", "Data"))
field("misc_checksum", ProtoField.uint32("marlo.misc.checksum", "Checksum", hex))
field("misc_crc_status", ProtoField.uint8("marlo.misc.checksum.status", "Checksum status", u32, crc_status))
field("misc_crc_calc", ProtoField.uint32("marlo.misc.checksum.computed", "Checksum of the data sent", hex))
field("misc_status", ProtoField.int32("marlo.misc.status", "Status", base.DEC))
field("misc_max", ProtoField.uint32("marlo.misc.max_payload", "MAX_PAYLOAD_SIZE", u32))
-- RMA channel.
field("rma", ProtoField.none("marlo.rma", "RMA message"))
field("rma_crc", ProtoField.uint32("marlo.rma.crc", "CRC", hex))
field("rma_crc_status", ProtoField.uint8("marlo.rma.crc.status", "CRC status", u32, crc_status))
field("rma_crc_calc", ProtoField.uint32("marlo.rma.crc.computed", "Computed CRC", hex))
field("rma_length", ProtoField.uint32("marlo.rma.length", "Total length", u32))
field("rma_cmd", ProtoField.uint32("marlo.rma.cmd", "Command", u32, rma_cmds))
field("rma_request", ProtoField.uint32("marlo.rma.request", "Request word", u32))
field("rma_memory_id", ProtoField.uint32("marlo.rma.memory_id", "Memory id", u32))
field("rma_second_id", ProtoField.uint32("marlo.rma.second_id", "Second id", u32))
field("rma_partition_size", ProtoField.uint32("marlo.rma.partition_size", "Partition size", u32))
field("rma_client_priv", ProtoField.uint32("marlo.rma.client_priv", "Client private value", hex))
field("rma_offset", ProtoField.uint32("marlo.rma.offset", "Offset", u32))
field("rma_block_size", ProtoField.uint32("marlo.rma.block_size", "Block size", u32))
field("rma_result", ProtoField.uint32("marlo.rma.result", "Result", u32, { [0] = "written", [1] = "not written" }))
field("rma_word", ProtoField.uint32("marlo.rma.word", "Word", u32))
field("rma_data", ProtoField.bytes("marlo.rma.data", "Data"))
-- Control device.
field("ctl", ProtoField.none("marlo.ctl", "Control-device message"))
field("ctl_request", ProtoField.uint32("marlo.ctl.request", "Request", hex, ctl_requests))
field("ctl_name", ProtoField.string("marlo.ctl.name", "Command"))
field("ctl_value", ProtoField.uint32("marlo.ctl.value", "Value", hex))
field("ctl_reserved", ProtoField.uint32("marlo.ctl.reserved", "Reserved", hex))
field("ctl_cmd", ProtoField.uint32("marlo.ctl.cmd", "cmd", u32))
field("ctl_count", ProtoField.uint32("marlo.ctl.count", "count", u32))
field("ctl_reply_ptr", ProtoField.uint32("marlo.ctl.reply_buffer", "Reply buffer", hex))
field("ctl_data", ProtoField.uint32("marlo.ctl.data", "Data word", hex))
field("ctl_result", ProtoField.int32("marlo.ctl.result", "Result", base.DEC))
field("ctl_errno", ProtoField.int32("marlo.ctl.errno", "errno", base.DEC))
field("ctl_kapi", ProtoField.string("marlo.ctl.kapi", "KAPI version"))
field("ctl_apps", ProtoField.string("marlo.ctl.apps_version", "Apps version"))
field("ctl_dsp", ProtoField.string("marlo.ctl.dsp_version", "DSP version"))
field("ctl_bt", ProtoField.string("marlo.ctl.bt_version", "BT version"))
-- Uevents.
field("uevent", ProtoField.none("marlo.uevent", "Uevent"))
field("uevent_string", ProtoField.string("marlo.uevent.string", "String"))
field("uevent_event", ProtoField.uint32("marlo.uevent.marlo_event", "MARLO_EVENT", u32, marlo_events))
local field_list = {}
for _, f in pairs(F) do field_list[#field_list + 1] = f end
marlo.fields = field_list

local E = {
  crc = ProtoExpert.new("marlo.crc_bad", "CRC does not match the message", expert.group.CHECKSUM,
                        expert.severity.ERROR),
  length = ProtoExpert.new("marlo.length_bad", "Length word disagrees with the packet", expert.group.MALFORMED,
                           expert.severity.ERROR),
  short = ProtoExpert.new("marlo.short", "Message shorter than its header", expert.group.MALFORMED,
                          expert.severity.ERROR),
  cmd = ProtoExpert.new("marlo.cmd_unknown", "Unknown command", expert.group.MALFORMED, expert.severity.ERROR),
  magic = ProtoExpert.new("marlo.magic_bad", "Wrong magic", expert.group.MALFORMED, expert.severity.ERROR),
  dir = ProtoExpert.new("marlo.direction_unexpected", "Message sent in the unexpected direction",
                        expert.group.PROTOCOL, expert.severity.WARN),
  seq = ProtoExpert.new("marlo.sequence_bad", "Sequence out of order", expert.group.SEQUENCE,
                        expert.severity.WARN),
  status = ProtoExpert.new("marlo.status_failed", "The request failed", expert.group.RESPONSE_CODE,
                           expert.severity.WARN),
  unanswered = ProtoExpert.new("marlo.unanswered", "Request not answered",
                               expert.group.SEQUENCE, expert.severity.NOTE),
  life = ProtoExpert.new("marlo.channel_event", "Channel opened or closed", expert.group.SEQUENCE,
                         expert.severity.CHAT),
}
marlo.experts = { E.crc, E.length, E.short, E.cmd, E.magic, E.dir, E.seq, E.status, E.unanswered, E.life }

local frame_comment = Field.new("frame.comment")
local frame_queue = Field.new("frame.interface_queue")

-- The frame's connection stream, nil when the capture gives none.
local function stream_of()
  local q = frame_queue()
  return q and q.value ~= 0 and q.value or nil
end

-- Per-file state, built on the first pass ------------------------------------------------------------------
-- Results are kept per frame and read on later passes (pinfo.visited). They are not dropped in the protocol's
-- init routine, which tshark -2 runs between its two passes; a new first pass shows as a frame not yet visited
-- whose number does not follow the last one seen, and starts everything afresh.
local pending     -- pending[channel][expected answer key] = { frame = n, time = t }
local pairs_of    -- pairs_of[frame] = { response_in = n } or { response_to = n, delta = t }
local misc_state  -- the misc-data resource being sent: { type, seq, crc } (first pass only)
local misc_result -- misc_result[frame] = { seq_expected = n, crc = computed }
local crc_of      -- crc_of[frame]: the CRC computed over the frame's message, kept for the next passes
local last_first_pass = 0
local function reset_state()
  pending, pairs_of, misc_state, misc_result, crc_of = { ctl = {} }, {}, nil, {}, {}
end
reset_state()
local function follow_pass(pinfo)
  if pinfo.visited then return end
  if pinfo.number <= last_first_pass then reset_state() end
  last_first_pass = pinfo.number
end

-- Remembers frame `pinfo.number` as waiting for the answer `key` on `channel` (first pass only).
local function expect_answer(pinfo, channel, key)
  if pinfo.visited then return end
  pending[channel] = pending[channel] or {}
  local old = pending[channel][key]
  if old then pairs_of[old.frame] = pairs_of[old.frame] or { unanswered = true } end
  pending[channel][key] = { frame = pinfo.number, time = pinfo.rel_ts }
end

-- Pairs frame `pinfo.number` with the request waiting for answer `key` on `channel` (first pass only).
local function take_answer(pinfo, channel, key)
  if pinfo.visited then return end
  local p = pending[channel] and pending[channel][key]
  if not p then return end
  pending[channel][key] = nil
  pairs_of[p.frame] = { response_in = pinfo.number }
  pairs_of[pinfo.number] = { response_to = p.frame, delta = pinfo.rel_ts - p.time }
end

local function show_pairing(pinfo, tree)
  local p = pairs_of[pinfo.number]
  if not p then return end
  if p.response_in then tree:add(F.response_in, p.response_in):set_generated() end
  if p.unanswered then tree:add_proto_expert_info(E.unanswered) end
  if p.response_to then
    tree:add(F.response_to, p.response_to):set_generated()
    local secs = math.floor(p.delta)
    tree:add(F.time, NSTime.new(secs, math.floor((p.delta - secs) * 1e9 + 0.5))):set_generated()
  end
end

-- Adds the word at `off` when the packet holds it (`len` bytes) and returns it; nil otherwise.
local function add_le32(tree, f, tvb, len, off, label)
  if off + 4 > len then return nil end
  local item = tree:add_le(f, tvb(off, 4))
  if label then item:prepend_text(label .. ": ") end
  return tvb(off, 4):le_uint()
end

local function name_of(names, v, what) return names[v] or string.format("%s %d", what, v) end

-- Zero-length messages carry the channel's life in their comment ("open stream 2", "closed by daemon stream 2", ...).
-- Requests still waiting on the channel are not answered across its closing or opening.
local function channel_event(pinfo, tree, channel, label)
  if not pinfo.visited and pending[channel] then
    for _, p in pairs(pending[channel]) do pairs_of[p.frame] = pairs_of[p.frame] or { unanswered = true } end
    pending[channel] = nil
  end
  local comment = frame_comment()
  local text = comment and tostring(comment.value) or "empty message"
  -- The field holds the event alone ("open", "closed by daemon"); the stream is marlo.stream.
  local item = tree:add(F.event, (text:gsub(" stream %d+$", ""))):set_generated()
  item:add_proto_expert_info(E.life, label .. " " .. text)
  pinfo.cols.info = "[" .. text .. "]"
end

local function check_direction(pinfo, item, want)
  if pinfo.p2p_dir ~= -1 and pinfo.p2p_dir ~= want then item:add_proto_expert_info(E.dir) end
end

-- DFU channel -----------------------------------------------------------------------------------------------
-- Which answer each message waits for, by the side that sends it.
local dfu_answer_of = { [1] = 2, [3] = 4, [5] = 6, [11] = 12, [13] = 14 }
local dfu_outbound = { [1] = true, [4] = true, [6] = true, [12] = true, [13] = true }

local function dissect_dfu(tvb, pinfo, root)
  pinfo.cols.protocol = "MARLO DFU"
  local len, whole = tvb:len(), tvb:reported_len()
  local tree = root:add(F.dfu, tvb())
  if len == 0 then return channel_event(pinfo, tree, "dfu", "DFU channel") end
  if len < 16 then
    tree:add_proto_expert_info(E.short, string.format("DFU message of %d bytes, header is 16", len))
    pinfo.cols.info = string.format("DFU message of %d bytes (short)", len)
    return
  end
  local cmd = tvb(0, 4):le_uint()
  local cmd_item = tree:add_le(F.dfu_cmd, tvb(0, 4))
  local magic_item = tree:add_le(F.dfu_magic, tvb(4, 4))
  if tvb(4, 4):le_uint() ~= 0x0A0B0C0D then magic_item:add_proto_expert_info(E.magic) end
  local total = tvb(8, 4):le_uint()
  local length_item = tree:add_le(F.dfu_length, tvb(8, 4))
  if total ~= whole then
    length_item:add_proto_expert_info(E.length, string.format("Length word says %d, packet holds %d", total, whole))
  end
  local crc = tvb(12, 4):le_uint()
  local crc_item = tree:add_le(F.dfu_crc, tvb(12, 4))
  local calc = crc_of[pinfo.number]
  if whole > len then
    calc = crc  -- a message cut in the capture: its CRC cannot be checked
    crc_item:append_text(" [not checked: " .. recorded_in_part .. "]")
  elseif not calc then
    calc = crc_update(crc_update(CRC_INIT, tvb:raw(0, 12)), "\0\0\0\0")
    calc = crc_final(crc_update(calc, len > 16 and tvb:raw(16, len - 16) or ""))
    crc_of[pinfo.number] = calc
  end
  if whole == len then
    crc_item:add(F.dfu_crc_calc, calc):set_generated()
    crc_item:add(F.dfu_crc_status, calc == crc and 1 or 0):set_generated()
  end
  if calc ~= crc then crc_item:add_proto_expert_info(E.crc, string.format("CRC 0x%08x, computed 0x%08x", crc, calc)) end

  local name = dfu_cmds[cmd]
  local info = name or string.format("unknown command %d", cmd)
  if not name then
    cmd_item:add_proto_expert_info(E.cmd)
  else
    check_direction(pinfo, cmd_item, dfu_outbound[cmd] and OUTBOUND or INBOUND)
  end
  local answer_key = cmd  -- what an answer is filed under
  if cmd == 1 then
    for i = 0, 2 do add_le32(tree, F.dfu_word, tvb, len, 16 + 4 * i) end
    if len >= 36 then tree:add(F.dfu_tag, tvb(28, 8)) end
  elseif cmd == 3 or cmd == 4 or cmd == 9 then
    local id = add_le32(tree, F.dfu_image_id, tvb, len, 16)
    local size = cmd == 4 and add_le32(tree, F.dfu_image_size, tvb, len, 20)
    if cmd == 4 then add_le32(tree, F.dfu_word, tvb, len, 24) end
    if id then info = info .. string.format(" id=%d", id) end
    if size then info = info .. string.format(" size=%d", size) end
  elseif cmd == 5 or cmd == 6 then
    local id = add_le32(tree, F.dfu_image_id, tvb, len, 16)
    local off = add_le32(tree, F.dfu_offset, tvb, len, 20)
    local flen = add_le32(tree, F.dfu_fragment_len, tvb, len, 24)
    if id and off and flen then info = info .. string.format(" id=%d offset=%d len=%d", id, off, flen) end
    if cmd == 6 and len > 28 then tree:add(F.dfu_fragment, tvb(28, len - 28)) end
    if cmd == 6 and whole > 28 then
      info = info .. string.format(" (%d bytes%s)", whole - 28, len < whole and ", not recorded" or "")
    end
  elseif cmd == 13 then
    local op = add_le32(tree, F.dfu_op, tvb, len, 16)
    if op == 0 then
      local off = add_le32(tree, F.dfu_erase_offset, tvb, len, 20)
      local elen = add_le32(tree, F.dfu_erase_length, tvb, len, 24)
      if off and elen then info = info .. string.format(" RAW_FLASH_ERASE offset=0x%x length=%d", off, elen) end
    elseif op then
      add_le32(tree, F.dfu_word, tvb, len, 20)
      add_le32(tree, F.dfu_word, tvb, len, 24)
      info = info .. " " .. name_of(spcl_ops, op, "operation")
    end
  elseif cmd == 14 then
    local op = add_le32(tree, F.dfu_op, tvb, len, 16)
    local code = add_le32(tree, F.dfu_code, tvb, len, 20)
    add_le32(tree, F.dfu_word, tvb, len, 24, "Reserved")
    if op then info = info .. " " .. name_of(spcl_ops, op, "operation") end
    if code then
      info = info .. " code=" .. code
      if code ~= 0 then tree:add_proto_expert_info(E.status, "Response code " .. code) end
    end
    if op == 1 then
      local state = add_le32(tree, F.dfu_state, tvb, len, 28)
      local id = add_le32(tree, F.dfu_image_id, tvb, len, 32)
      local off = add_le32(tree, F.dfu_offset, tvb, len, 36)
      local flen = add_le32(tree, F.dfu_fragment_len, tvb, len, 40)
      if state then info = info .. " state=" .. name_of(dfu_states, state, "") end
      if state == 1 and id then info = info .. string.format(" id=%d", id) end
      if state == 2 and id and off and flen then info = info .. string.format(" id=%d offset=%d len=%d", id, off, flen) end
      -- A reported state 1..3 is answered as if its request had just arrived (the resumption).
      if code == 0 then
        local resumed = ({ [1] = 3, [2] = 5, [3] = 11 })[state]
        if resumed then expect_answer(pinfo, "dfu", dfu_answer_of[resumed]) end
      end
    end
  end
  if len > total and total >= 16 then tree:add(F.dfu_extra, tvb(total, len - total)) end
  if calc ~= crc then info = info .. " [BAD CRC]" end
  if total ~= whole then info = info .. " [BAD LENGTH]" end

  if name then
    take_answer(pinfo, "dfu", cmd)
    if dfu_answer_of[cmd] then expect_answer(pinfo, "dfu", dfu_answer_of[cmd]) end
  end
  show_pairing(pinfo, tree)
  pinfo.cols.info = info
end

-- Misc-data channel -----------------------------------------------------------------------------------------
local function dissect_misc(tvb, pinfo, root)
  pinfo.cols.protocol = "MARLO MISC"
  local len, whole = tvb:len(), tvb:reported_len()
  local tree = root:add(F.misc, tvb())
  if len == 0 then return channel_event(pinfo, tree, "misc", "misc-data channel") end
  if len < 16 then
    tree:add_proto_expert_info(E.short, string.format("Misc-data packet of %d bytes, header is 16", len))
    pinfo.cols.info = string.format("misc-data packet of %d bytes (short)", len)
    return
  end
  local kind, type_, length, seq = tvb(0, 4):le_uint(), tvb(4, 4):le_uint(), tvb(8, 4):le_uint(),
                                   tvb(12, 4):le_uint()
  local kind_item = tree:add_le(F.misc_kind, tvb(0, 4))
  tree:add_le(F.misc_type, tvb(4, 4))
  local length_item = tree:add_le(F.misc_length, tvb(8, 4))
  tree:add_le(F.misc_seq, tvb(12, 4))
  local name = misc_kinds[kind]
  local info = name or string.format("unknown kind %d", kind)
  if not name then kind_item:add_proto_expert_info(E.cmd, "Unknown packet kind " .. kind) end

  if pinfo.p2p_dir == INBOUND then
    -- The co-processor's answer: the request's header, a status and MAX_PAYLOAD_SIZE.
    info = info .. "_ANSWER"
    local status = len >= 20 and tvb(16, 4):le_int()
    if status then tree:add_le(F.misc_status, tvb(16, 4)) end
    local max = add_le32(tree, F.misc_max, tvb, len, 20)
    if len ~= 24 then length_item:add_proto_expert_info(E.length, string.format("Answer of %d bytes, expected 24", len)) end
    if status then
      info = info .. " status=" .. status
      if status ~= 0 then tree:add_proto_expert_info(E.status, "Status " .. status) end
    end
    if kind == 0 and max then info = info .. " max_payload=" .. max end
    take_answer(pinfo, "misc", "answer")
  else
    if not pinfo.visited and kind == 0 then misc_state = { type = type_, seq = 1, crc = CRC_INIT, cut = false } end
    local st = misc_state
    if kind == 0 then
      info = info .. string.format(" type=%d size=%d", type_, length)
      if len ~= 16 then length_item:add_proto_expert_info(E.length, "Start packet is 16 bytes") end
    elseif kind == 1 or kind == 2 then
      info = info .. string.format(" type=%d seq=%d len=%d", type_, seq, length)
      if length ~= tvb:reported_len() - 16 then
        length_item:add_proto_expert_info(E.length, string.format("Length word says %d, packet carries %d", length,
                                                                   tvb:reported_len() - 16))
      end
      if len > 16 then tree:add(F.misc_data, tvb(16, len - 16)) end
      if not pinfo.visited then
        local r = { seq_expected = st and st.seq }
        if st then
          st.seq = seq + 1
          st.crc = crc_update(st.crc, len > 16 and tvb:raw(16, len - 16) or "")
          st.cut = st.cut or tvb:reported_len() > len
        end
        misc_result[pinfo.number] = r
      end
      local r = misc_result[pinfo.number]
      if r and r.seq_expected ~= seq then
        tree:add_proto_expert_info(E.seq, r.seq_expected and string.format("Sequence %d, expected %d", seq, r.seq_expected)
                                            or "Data packet without a start packet")
      end
    elseif kind == 4 then
      local sum = add_le32(tree, F.misc_checksum, tvb, len, 16)
      if len ~= 20 or length ~= 4 then length_item:add_proto_expert_info(E.length, "CRC packet is 20 bytes, length 4") end
      if not pinfo.visited then
        -- Data cut from the capture leaves the checksum unchecked.
        misc_result[pinfo.number] = { crc = st and not st.cut and crc_final(st.crc) or nil }
        misc_state = nil
      end
      local calc = misc_result[pinfo.number] and misc_result[pinfo.number].crc
      if sum then info = info .. string.format(" type=%d checksum=0x%08x", type_, sum) end
      if sum and calc then
        tree:add(F.misc_crc_calc, calc):set_generated()
        tree:add(F.misc_crc_status, calc == sum and 1 or 0):set_generated()
        if calc ~= sum then
          tree:add_proto_expert_info(E.crc, string.format("Checksum 0x%08x, data sent gives 0x%08x", sum, calc))
          info = info .. " [BAD CRC]"
        end
      end
    elseif kind == 5 then
      if len ~= 16 then length_item:add_proto_expert_info(E.length, "Finish packet is 16 bytes") end
    end
    expect_answer(pinfo, "misc", "answer")
  end
  show_pairing(pinfo, tree)
  pinfo.cols.info = info
end

-- RMA channel -----------------------------------------------------------------------------------------------
local rma_answer_of = { [0] = 1, [2] = 3, [256] = 257, [512] = 513 }

local function dissect_rma(tvb, pinfo, root)
  pinfo.cols.protocol = "MARLO RMA"
  local len, whole = tvb:len(), tvb:reported_len()
  local tree = root:add(F.rma, tvb())
  if len == 0 then return channel_event(pinfo, tree, "rma", "RMA channel") end
  if len < 12 then
    tree:add_proto_expert_info(E.short, string.format("RMA message of %d bytes, header is 12", len))
    pinfo.cols.info = string.format("RMA message of %d bytes (short)", len)
    return
  end
  local crc, total, cmd = tvb(0, 4):le_uint(), tvb(4, 4):le_uint(), tvb(8, 4):le_uint()
  local crc_item = tree:add_le(F.rma_crc, tvb(0, 4))
  local calc = crc
  if whole > len then
    crc_item:append_text(" [not checked: " .. recorded_in_part .. "]")
  else
    calc = crc_of[pinfo.number] or crc_final(crc_update(CRC_INIT, tvb:raw(4, len - 4)))
    crc_of[pinfo.number] = calc
    crc_item:add(F.rma_crc_calc, calc):set_generated()
    crc_item:add(F.rma_crc_status, calc == crc and 1 or 0):set_generated()
  end
  if calc ~= crc then crc_item:add_proto_expert_info(E.crc, string.format("CRC 0x%08x, computed 0x%08x", crc, calc)) end
  local length_item = tree:add_le(F.rma_length, tvb(4, 4))
  if total ~= whole then
    length_item:add_proto_expert_info(E.length, string.format("Length word says %d, packet holds %d", total, whole))
  end
  local cmd_item = tree:add_le(F.rma_cmd, tvb(8, 4))
  local name = rma_cmds[cmd]
  local info = name or string.format("unknown command %d", cmd)
  if not name then
    cmd_item:add_proto_expert_info(E.cmd)
  else
    check_direction(pinfo, cmd_item, rma_answer_of[cmd] and INBOUND or OUTBOUND)
  end
  local function w(f, off, label) return add_le32(tree, f, tvb, len, off, label) end
  if cmd == 0 then
    local mem = w(F.rma_memory_id, 16)
    local second = w(F.rma_second_id, 20)
    local size = w(F.rma_partition_size, 24)
    w(F.rma_client_priv, 36)
    if mem and size then info = info .. string.format(" memory=%d second=%d size=%d", mem, second, size) end
  elseif cmd == 256 or cmd == 512 then
    local req = w(F.rma_request, 12)
    local mem = w(F.rma_memory_id, 16)
    local off = w(F.rma_offset, 20)
    local size = w(F.rma_block_size, 24)
    if mem and off and size then info = info .. string.format(" memory=%d offset=%d size=%d", mem, off, size) end
    if cmd == 512 and len > 32 then
      tree:add(F.rma_data, tvb(32, len - 32))
      if size and size ~= whole - 32 then
        tree:add_proto_expert_info(E.length, string.format("Block size %d, message carries %d bytes", size, whole - 32))
      end
    end
  elseif cmd == 2 then
    local mem = w(F.rma_memory_id, 16)
    if mem then info = info .. string.format(" memory=%d", mem) end
  elseif cmd == 1 then
    w(F.rma_client_priv, 12)
    w(F.rma_word, 16)
    local mem = w(F.rma_memory_id, 20)
    for off = 24, 32, 4 do w(F.rma_word, off) end
    if mem then info = info .. string.format(" memory=%d", mem) end
  elseif cmd == 3 then
    local mem = w(F.rma_memory_id, 12, "Stored memory id")
    w(F.rma_client_priv, 16)
    w(F.rma_memory_id, 20, "Requested memory id")
    w(F.rma_word, 24)
    if mem then info = info .. string.format(" memory=%d", mem) end
  elseif cmd == 257 or cmd == 513 then
    w(F.rma_request, 12)
    w(F.rma_client_priv, 16)
    local mem = w(F.rma_memory_id, 20)
    local size = w(F.rma_block_size, 24)
    local result = w(cmd == 513 and F.rma_result or F.rma_word, 28)
    if mem and size then info = info .. string.format(" memory=%d size=%d", mem, size) end
    if cmd == 257 and len > 32 then tree:add(F.rma_data, tvb(32, len - 32)) end
    if cmd == 513 and result then
      info = info .. " result=" .. result
      if result ~= 0 then tree:add_proto_expert_info(E.status, "Block not written") end
    end
  end
  if calc ~= crc then info = info .. " [BAD CRC]" end
  if total ~= whole then info = info .. " [BAD LENGTH]" end
  if name then
    take_answer(pinfo, "rma", cmd)
    if rma_answer_of[cmd] then expect_answer(pinfo, "rma", rma_answer_of[cmd]) end
  end
  show_pairing(pinfo, tree)
  pinfo.cols.info = info
end

-- Control device --------------------------------------------------------------------------------------------
local function ctl_name(request, cmd)
  if request == 0xc0205609 then return name_of(boot_cmds, cmd, "BOOT_CMD") end
  if request == 0xc0205608 then return cmd == 3 and "GET_VERSION" or "IPC_CMD" end
  return ctl_requests[request] or string.format("request 0x%08x", request)
end

local function cstring(tvb, off, size)
  local s = tvb:raw(off, size)
  return (s:match("^[^%z]*"))
end

local function dissect_block(tree, tvb, off)
  local v = tvb(off, 4):le_uint()
  tree:add_le(F.ctl_value, tvb(off, 4))
  for i = 1, 4 do tree:add_le(F.ctl_reserved, tvb(off + 4 * i, 4)) end
  local cmd = tvb(off + 20, 4):le_uint()
  tree:add_le(F.ctl_cmd, tvb(off + 20, 4))
  tree:add_le(F.ctl_count, tvb(off + 24, 4))
  tree:add_le(F.ctl_reply_ptr, tvb(off + 28, 4))
  return v, cmd
end

-- The control requests waiting for an answer: per connection when the capture gives streams.
local function ctl_queue(stream)
  if not stream then return pending.ctl end
  local key = "ctl stream " .. stream
  pending[key] = pending[key] or {}
  return pending[key]
end

local function dissect_ctl(tvb, pinfo, root)
  pinfo.cols.protocol = "MARLO CTL"
  local len = tvb:len()
  local tree = root:add(F.ctl, tvb())
  if len == 0 then return channel_event(pinfo, tree, "ctl_events", "control device") end
  if pinfo.p2p_dir ~= INBOUND then
    if len < 36 then
      tree:add_proto_expert_info(E.short, string.format("Request of %d bytes, header is 36", len))
      pinfo.cols.info = string.format("control request of %d bytes (short)", len)
      return
    end
    local request = tvb(0, 4):le_uint()
    local req_item = tree:add_le(F.ctl_request, tvb(0, 4))
    local value, cmd = dissect_block(tree, tvb, 4)
    local name = ctl_name(request, cmd)
    tree:add(F.ctl_name, name):set_generated()
    if not ctl_requests[request] then req_item:add_proto_expert_info(E.cmd, "Unknown request") end
    local info = name
    if request == 0xc0205605 then
      local data = add_le32(tree, F.ctl_data, tvb, len, 36)
      if data then info = info .. string.format(" data=0x%08x", data) end
      if len ~= 40 then tree:add_proto_expert_info(E.length, "Reset request carries one data word") end
    elseif len ~= 36 then
      tree:add_proto_expert_info(E.length, string.format("Request of %d bytes, expected 36", len))
    end
    if request == 0xc0205609 and cmd == 5 then info = info .. " " .. name_of(boot_modes, value, "mode")
    elseif request == 0xc0205609 and cmd == 8 then info = info .. " " .. value end
    if not pinfo.visited then
      local queue = ctl_queue(stream_of())
      table.insert(queue, { frame = pinfo.number, time = pinfo.rel_ts, name = name })
    end
    show_pairing(pinfo, tree)
    pinfo.cols.info = info
    return
  end
  -- An answer: result, errno, the block as the device left it, and the version record for GET_VERSION.
  if len < 40 then
    tree:add_proto_expert_info(E.short, string.format("Answer of %d bytes, header is 40", len))
    pinfo.cols.info = string.format("control answer of %d bytes (short)", len)
    return
  end
  if not pinfo.visited then
    -- Each ioctl is a request and its answer on one connection; answers come in the order of the requests.
    local p = table.remove(ctl_queue(stream_of()), 1)
    if p then
      pairs_of[p.frame] = { response_in = pinfo.number }
      pairs_of[pinfo.number] = { response_to = p.frame, delta = pinfo.rel_ts - p.time, name = p.name }
    end
  end
  local result = tvb(0, 4):le_int()
  tree:add_le(F.ctl_result, tvb(0, 4))
  local err = tvb(4, 4):le_int()
  tree:add_le(F.ctl_errno, tvb(4, 4))
  dissect_block(tree, tvb, 8)
  local p = pairs_of[pinfo.number]
  local info = (p and p.name or "control") .. " answer result=" .. result
  if result == -1 then
    info = info .. " errno=" .. err
    tree:add_proto_expert_info(E.status, "ioctl failed with errno " .. err)
  end
  if len >= 40 + 308 then
    local k = tvb(44, 4):le_uint()
    tree:add(F.ctl_kapi, tvb(44, 4),
             string.format("%d.%d.%d", rshift(k, 24), band(rshift(k, 16), 0xFF), band(k, 0xFFFF)))
    tree:add(F.ctl_apps, tvb(48, 100), cstring(tvb, 48, 100))
    tree:add(F.ctl_dsp, tvb(148, 100), cstring(tvb, 148, 100))
    tree:add(F.ctl_bt, tvb(248, 100), cstring(tvb, 248, 100))
    info = info .. " apps=" .. cstring(tvb, 48, 100)
  elseif len ~= 40 then
    tree:add_proto_expert_info(E.length, string.format("Answer of %d bytes, expected 40 or 348", len))
  end
  show_pairing(pinfo, tree)
  pinfo.cols.info = info
end

-- Uevents ---------------------------------------------------------------------------------------------------
local function dissect_uevent(tvb, pinfo, root)
  pinfo.cols.protocol = "MARLO UEVENT"
  local len = tvb:len()
  local tree = root:add(F.uevent, tvb())
  if len == 0 then return channel_event(pinfo, tree, "uevent", "uevent socket") end
  local s = tvb:raw(0, len)
  local parts, pos = {}, 1
  while pos <= len do
    local stop = s:find("\0", pos, true) or (len + 1)
    if stop > pos then
      local text = s:sub(pos, stop - 1)
      tree:add(F.uevent_string, tvb(pos - 1, stop - pos), text)
      local n = text:match("^MARLO_EVENT=(%d+)")
      if n then
        tree:add(F.uevent_event, tvb(pos - 1, stop - pos), tonumber(n))
        text = text .. (marlo_events[tonumber(n)] and " (" .. marlo_events[tonumber(n)] .. ")" or "")
      end
      parts[#parts + 1] = text
    end
    pos = stop + 1
  end
  pinfo.cols.info = "uevent " .. table.concat(parts, " ")
end

-- Registration ---------------------------------------------------------------------------------------------
local by_encap = { [wtap.USER0] = dissect_ctl, [wtap.USER1] = dissect_dfu, [wtap.USER2] = dissect_misc,
                   [wtap.USER3] = dissect_rma, [wtap.USER4] = dissect_uevent }
local ends_of = { [wtap.USER0] = "marlo_com_dev", [wtap.USER1] = "co-processor", [wtap.USER2] = "co-processor",
                  [wtap.USER3] = "co-processor", [wtap.USER4] = "kernel" }
local encap_type = Field.new("frame.encap_type")

function marlo.dissector(tvb, pinfo, tree)
  local encap = encap_type()
  local fn = encap and by_encap[encap.value]
  if not fn then return 0 end
  follow_pass(pinfo)
  local ends = ends_of[encap.value]
  if pinfo.p2p_dir == OUTBOUND then pinfo.cols.src, pinfo.cols.dst = "marlod", ends
  elseif pinfo.p2p_dir == INBOUND then pinfo.cols.src, pinfo.cols.dst = ends, "marlod" end
  local subtree = tree:add(marlo, tvb())
  local stream = stream_of()
  if stream then subtree:add(F.stream, stream):set_generated() end
  -- A "headers" capture cuts private data from some messages: what is missing is shown, never read.
  local cut = tvb:reported_len() - tvb:len()
  if cut > 0 then subtree:add(F.cut, cut):set_generated() end
  fn(tvb, pinfo, subtree)
  if cut > 0 then pinfo.cols.info:append(string.format(" [cut: %d of %d bytes recorded]", tvb:len(), tvb:reported_len())) end
  return tvb:len()
end

local wtap_table = DissectorTable.get("wtap_encap")
for encap in pairs(by_encap) do wtap_table:add(encap, marlo) end
