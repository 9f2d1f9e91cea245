-- Rows built by a recursive query, an index, grouping, sorting and string functions, in an
-- in-memory database. The row count comes from the parameter @rows (the harness sets it with
-- .parameter set @rows N; default 100000).
CREATE TABLE items(id INTEGER PRIMARY KEY, category TEXT, name TEXT, price INTEGER, note TEXT);
WITH RECURSIVE n(i, seed) AS (
    SELECT 1, 42
    UNION ALL
    SELECT i + 1, (seed * 1103515245 + 12345) % 2147483648 FROM n
    WHERE i < coalesce(@rows, 100000)
)
INSERT INTO items
SELECT i, 'category' || (seed / 65536 % 40), printf('item-%06d-%x', i, seed), seed % 100000,
       substr('lorem ipsum dolor sit amet consectetur adipiscing elit', 1 + seed % 20, 10 + seed % 30)
FROM n;
CREATE INDEX items_by_category ON items(category, price);
SELECT category, count(*), sum(price), max(length(note)) FROM items GROUP BY category
ORDER BY category LIMIT 10;
SELECT count(DISTINCT note), sum(length(name)) FROM items;
SELECT name, price FROM items WHERE category = 'category7' ORDER BY price DESC, id LIMIT 5;
SELECT group_concat(upper(substr(note, 1, 3)), '') IS NOT NULL, count(*) FROM
    (SELECT note FROM items ORDER BY note, id);
SELECT category, count(*) FROM
    (SELECT category, lag(category) OVER (ORDER BY id) AS previous FROM items)
WHERE category = previous GROUP BY category ORDER BY 2 DESC, 1 LIMIT 3;
SELECT category, name, rank() OVER (PARTITION BY category ORDER BY price DESC, id) AS place
FROM items ORDER BY place, category LIMIT 3;
