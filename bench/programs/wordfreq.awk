# Word frequencies over a generated text: associative arrays, string building and sorting.
# Self-contained: the text comes from a fixed linear congruential generator.
# Run: gawk -v scale=N -f wordfreq.awk   (N = thousands of lines; default 15)
function draw(bound) {
    seed = (seed * 1103515245 + 12345) % 2147483648
    return int(seed / 65536) % bound
}

function word(    length_, text, i) {
    length_ = 2 + draw(8)
    text = ""
    for (i = 0; i < length_; i++) text = text substr(letters, 1 + draw(draw(2) ? 6 : 26), 1)
    return text
}

BEGIN {
    if (scale == "") scale = 15
    seed = 42
    letters = "etaoinshrdlcumwfgypbvkjxqz"
    lines = scale * 1000
    for (n = 0; n < lines; n++) {
        line = ""
        words = 4 + draw(12)
        for (w = 0; w < words; w++) line = line (w ? " " : "") word()
        count = split(line, parts, " ")
        for (i = 1; i <= count; i++) {
            frequency[parts[i]]++
            pair[parts[i] ":" parts[(i % count) + 1]]++
        }
        total += count
        if (n % 1000 == 0) lengths[n] = length(line)
    }
    distinct = asorti(frequency, sorted)
    for (i = 1; i <= distinct; i++) by_count[sprintf("%08d %s", 99999999 - frequency[sorted[i]], sorted[i])] = 1
    ranked = asorti(by_count, order)
    for (i = 1; i <= 20 && i <= ranked; i++) print order[i]
    pairs = 0
    for (key in pair) pairs++
    checksum = 0
    for (n in lengths) checksum += lengths[n] * (n + 1)
    printf "words %d distinct %d pairs %d checksum %d\n", total, distinct, pairs, checksum
}
