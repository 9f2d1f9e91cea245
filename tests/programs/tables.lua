-- Tables, strings and closures: a word count, a sort, big strings built and cut up.
local seed = 42
local function draw(n)
    seed = seed * 16807 % 2147483647
    return seed % n
end

local counts = {}
for _ = 1, 60000 do
    local letters = {}
    for j = 1, 1 + draw(8) do letters[j] = string.char(97 + draw(6)) end
    local word = table.concat(letters)
    counts[word] = (counts[word] or 0) + 1
end
local words = {}
for word in pairs(counts) do words[#words + 1] = word end
table.sort(words, function(a, b)
    if counts[a] ~= counts[b] then return counts[a] > counts[b] end
    return a < b
end)
for i = 1, 10 do print(words[i], counts[words[i]]) end

local parts = {}
for i = 1, 20000 do parts[i] = string.rep(string.char(65 + i % 26), i % 300) end
local big = table.concat(parts)
print(#words, #big, big:sub(1000, 1010))
for i = #parts, 1, -2 do table.remove(parts, i) end
local runs = big:gsub("A+", function(run) return #run end)
collectgarbage()
print(#parts, #runs)
