-- Records in tables, string formatting and concatenation, sorting and closures.
-- Self-contained: the data comes from a fixed linear congruential generator.
-- Run: lua5.4 tables.lua N   (N = thousands of records; default 150)
local scale = tonumber(arg[1]) or 150
local seed = 7
local function draw(bound)
  seed = (seed * 1103515245 + 12345) % 2147483648
  return (seed // 65536) % bound
end

local names = {}
for i = 1, 500 do names[i] = string.format("name%03d_%s", i, string.rep("x", draw(20))) end

local records = {}
for i = 1, scale * 1000 do
  local record = { id = i, name = names[1 + draw(#names)], score = draw(100000), tags = {} }
  for t = 1, draw(6) do record.tags[t] = "tag" .. draw(50) end
  records[i] = record
end

local groups = {}
for _, record in ipairs(records) do
  local key = record.name .. "/" .. #record.tags
  local group = groups[key]
  if not group then group = { count = 0, sum = 0, members = {} }; groups[key] = group end
  group.count = group.count + 1
  group.sum = group.sum + record.score
  group.members[#group.members + 1] = record.id
end

table.sort(records, function(a, b)
  if a.score ~= b.score then return a.score > b.score end
  return a.id < b.id
end)

local parts = {}
for i = 1, #records, 97 do
  local record = records[i]
  parts[#parts + 1] = string.format("%d:%s:%s", record.id, record.name, table.concat(record.tags, ","))
end
local joined = table.concat(parts, ";")
local replaced, substitutions = joined:gsub("tag(%d+)", function(n) return "T" .. (n * 3) end)

local keys = {}
for key in pairs(groups) do keys[#keys + 1] = key end
table.sort(keys)
local checksum = 0
for i, key in ipairs(keys) do checksum = (checksum * 31 + groups[key].sum + i) % 1000000007 end
print("records", #records, "groups", #keys, "top", records[1].id, records[1].score)
print("joined", #joined, "replaced", #replaced, "substitutions", substitutions)
print("checksum", checksum)
